#include "connector/http/content/FileAnswer.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <system_error>

#include <sys/random.h>
#include <unistd.h>

#include "connector/http/content/Conditions.h"
#include "connector/http/content/HttpDate.h"
#include "connector/http/content/Ranges.h"

namespace connector::http::content {

namespace {

// Whoever can put a file there must not speak to the connector with the rights of our own pages.
constexpr const char* kUserFilesPolicy = "sandbox; default-src 'none'; style-src 'unsafe-inline'; "
                                         "img-src 'self' data:; frame-ancestors 'none'";

/// What each answer about a file carries, also 304: a browser takes over its fields for what it has stored.
void addFields(HttpResponse& response, const FoundContent& found, const Validators& validators)
{
    Headers& headers = response.headers;
    headers.set("X-Content-Type-Options", "nosniff");
    headers.add("Accept-Ranges", "bytes");
    headers.add("ETag", validators.entityTag);
    if (auto modified = formatHttpDate(validators.modified); !modified.empty())
        headers.add("Last-Modified", std::move(modified));
    if (found.type->compressible)
        headers.add("Vary", "Accept-Encoding");
    if (found.userFiles)
        headers.add("Content-Security-Policy", kUserFilesPolicy);
}

void addCoding(HttpResponse& response, Coding coding)
{
    if (coding != Coding::identity)
        response.headers.add("Content-Encoding", coding == Coding::brotli ? "br" : "gzip");
}

std::string readBytes(int number, const ByteRange& range)
{
    std::string text(static_cast<std::size_t>(range.length), '\0');
    for (std::size_t have = 0; have < text.size();) {
        const auto count =
            ::pread(number, text.data() + have, text.size() - have, static_cast<off_t>(range.first + have));
        if (count == 0)
            throw HttpFault(503, "The file is being changed.");
        if (count > 0)
            have += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "A content file cannot be read");
    }
    return text;
}

/// The length of HEAD's answer is that of GET's, but nothing is read for it.
void setBody(HttpResponse& response, OpenFile&& file, const ByteRange& range, bool headOnly)
{
    if (range.length <= kMaxBytesInMemory && !headOnly)
        response.body = readBytes(file.descriptor.number(), range);
    else if (range.length > 0)
        response.parts.emplace_back(std::make_shared<const common::FileDescriptor>(std::move(file.descriptor)),
                                    range.first, range.length);
}

std::string contentRange(const ByteRange& range, std::uint64_t size)
{
    return "bytes " + std::to_string(range.first) + "-" + std::to_string(range.first + range.length - 1) + "/" +
           std::to_string(size);
}

/// By chance, so that nobody can write a file that has it inside.
std::string makeBoundary()
{
    std::array<unsigned char, 12> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw std::system_error(errno, std::generic_category(), "No random bytes for a boundary");
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

void setParts(HttpResponse& response, const FoundContent& found, std::shared_ptr<const common::FileDescriptor> file,
              const std::vector<ByteRange>& ranges)
{
    const std::string boundary = makeBoundary();
    const std::string before =
        "--" + boundary + "\r\nContent-Type: " + std::string(found.type->type) + "\r\nContent-Range: ";
    response.headers.add("Content-Type", "multipart/byteranges; boundary=" + boundary);
    response.parts.reserve(2 * ranges.size() + 1);
    for (const ByteRange& range : ranges) {
        response.parts.emplace_back((response.parts.empty() ? "" : "\r\n") + before +
                                    contentRange(range, found.file.size) + "\r\n\r\n");
        response.parts.emplace_back(file, range.first, range.length);
    }
    response.parts.emplace_back("\r\n--" + boundary + "--\r\n");
}

RangeSelection selectionOf(const HttpRequest& request, const FoundContent& found, const Validators& validators,
                           std::int64_t now)
{
    const std::string* field = request.headers.find("Range");
    if (!field || request.method != "GET" || request.headers.count("Range") != 1 ||
        !rangeApplies(request.headers, validators, now))
        return {};
    auto selection = selectRanges(*field, found.file.size);
    // Content-Encoding of a multipart answer would speak of the parts' frame too.
    if (selection.ranges.size() > 1 && found.coding != Coding::identity)
        return {};
    return selection;
}

std::unique_ptr<HttpResponse> answerWithContent(const HttpRequest& request, FoundContent&& found,
                                                const RangeSelection& selection)
{
    const bool partial = selection.kind == RangeSelection::Kind::some;
    auto response = std::make_unique<HttpResponse>(partial ? 206 : 200);
    addCoding(*response, found.coding);
    if (selection.ranges.size() > 1) {
        auto file = std::make_shared<const common::FileDescriptor>(std::move(found.file.descriptor));
        setParts(*response, found, std::move(file), selection.ranges);
        return response;
    }
    response->headers.add("Content-Type", std::string(found.type->type));
    ByteRange range{0, found.file.size};
    if (partial) {
        range = selection.ranges.front();
        response->headers.add("Content-Range", contentRange(range, found.file.size));
    }
    setBody(*response, std::move(found.file), range, request.method == "HEAD");
    return response;
}

} // namespace

std::unique_ptr<HttpResponse> answerWithFile(const HttpRequest& request, FoundContent&& found)
{
    const std::int64_t now = std::time(nullptr);
    const Validators validators = validatorsOf(found.file, found.coding, now);
    std::unique_ptr<HttpResponse> response;
    switch (checkConditions(request.headers, validators, now)) {
    case Verdict::notModified:
        response = std::make_unique<HttpResponse>(304);
        break;
    case Verdict::failed:
        response = refusal(request, 412, "The file is not the one that was meant.");
        break;
    case Verdict::proceed:
        if (const auto selection = selectionOf(request, found, validators, now);
            selection.kind == RangeSelection::Kind::unsatisfiable) {
            response = refusal(request, 416, "The file has no such bytes.");
            response->headers.add("Content-Range", "bytes */" + std::to_string(found.file.size));
        } else {
            response = answerWithContent(request, std::move(found), selection);
        }
    }
    addFields(*response, found, validators);
    return response;
}

} // namespace connector::http::content
