#include "connector/http/engine/ChunkedBody.h"

#include <algorithm>
#include <charconv>

#include "connector/http/HttpText.h"

namespace connector::http::engine {

namespace {

constexpr std::size_t kMaxLineBytes = 256;
constexpr std::size_t kMaxExtensionBytes = 16u << 10;
constexpr std::size_t kMaxTrailerBytes = 8u << 10;
constexpr std::size_t kMaxSizeDigits = 15;

} // namespace

ChunkedBody::State ChunkedBody::read(std::string_view& bytes, std::string& body)
{
    while (!bytes.empty()) {
        if (part_ == Part::data) {
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left_, bytes.size()));
            body.append(bytes.substr(0, count));
            bytes.remove_prefix(count);
            left_ -= count;
            taken_ += count;
            if (left_ == 0)
                part_ = Part::dataEnd;
            continue;
        }

        if (!takeLine(bytes)) {
            const std::size_t limit = part_ == Part::trailer ? kMaxTrailerBytes : kMaxLineBytes;
            if (line_.size() > limit)
                return refuse(400, "A line of a chunked body is longer than " + std::to_string(limit) + " bytes.");
            return State::needMore;
        }
        if (line_.size() < 2 || line_[line_.size() - 2] != '\r')
            return refuse(400, "A line of a chunked body ends without a carriage return.");
        line_.resize(line_.size() - 2);

        State state = State::needMore;
        if (part_ == Part::size)
            state = readSize();
        else if (part_ == Part::trailer)
            state = readTrailer();
        else if (line_.empty())
            part_ = Part::size;
        else
            state = refuse(400, "A chunk is longer than its size.");
        line_.clear();
        if (state != State::needMore)
            return state;
    }
    return State::needMore;
}

ChunkedBody::State ChunkedBody::refuse(unsigned status, std::string text)
{
    refused_ = {status, std::move(text)};
    return State::refused;
}

/// Moves bytes to `line_` up to a line feed; false when there is none yet or the line is too long anyway.
bool ChunkedBody::takeLine(std::string_view& bytes)
{
    const std::size_t limit = part_ == Part::trailer ? kMaxTrailerBytes : kMaxLineBytes;
    const std::string_view window = bytes.substr(0, limit + 1 - std::min(line_.size(), limit));
    const auto end = window.find('\n');
    const auto count = end == std::string_view::npos ? window.size() : end + 1;
    line_.append(bytes.substr(0, count));
    bytes.remove_prefix(count);
    return end != std::string_view::npos;
}

ChunkedBody::State ChunkedBody::readSize()
{
    std::uint64_t size = 0;
    const char* const begin = line_.data();
    const char* const end = begin + line_.size();
    const auto digits = std::from_chars(begin, end, size, 16);
    const auto count = static_cast<std::size_t>(digits.ptr - begin);
    if (digits.ec != std::errc() || count == 0 || count > kMaxSizeDigits || line_.front() == '-')
        return refuse(400, "Not a chunk size: \"" + printable(line_) + "\"");
    const std::string_view extension(digits.ptr, line_.size() - count);
    if (!extension.empty() && (extension.front() != ';' || !isFieldValue(extension)))
        return refuse(400, "Not a chunk size: \"" + printable(line_) + "\"");
    extensionBytes_ += extension.size();
    if (extensionBytes_ > kMaxExtensionBytes)
        return refuse(400, "More than " + std::to_string(kMaxExtensionBytes) + " bytes of chunk extensions.");
    if (size > bodyLimit_ - std::min(bodyLimit_, taken_))
        return refuse(413, "The body is longer than " + std::to_string(bodyLimit_) + " bytes.");
    left_ = size;
    part_ = size == 0 ? Part::trailer : Part::data;
    return State::needMore;
}

ChunkedBody::State ChunkedBody::readTrailer()
{
    if (line_.empty())
        return State::complete;
    trailerBytes_ += line_.size();
    const auto colon = line_.find(':');
    if (trailerBytes_ > kMaxTrailerBytes)
        return refuse(400, "More than " + std::to_string(kMaxTrailerBytes) + " bytes of trailer fields.");
    if (colon == std::string::npos || !isToken(std::string_view(line_).substr(0, colon)) || !isFieldValue(line_))
        return refuse(400, "Not a trailer field: \"" + printable(line_) + "\"");
    return State::needMore;
}

} // namespace connector::http::engine
