#include "connector/http/StaticContentServiceProvider.h"

#include "connector/http/content/FileAnswer.h"

namespace connector::http {

namespace {

/// Only unreserved characters stay as they are, so that a name never reads as a scheme or as another host.
std::string percentEncoded(std::string_view text)
{
    constexpr std::string_view kUnreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    std::string result;
    for (const char c : text) {
        if (kUnreserved.find(c) != std::string_view::npos) {
            result += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            result += '%';
            result += "0123456789ABCDEF"[byte >> 4];
            result += "0123456789ABCDEF"[byte & 15];
        }
    }
    return result;
}

/// To the folder's own name below where it stands: right also under a path that a filter has shortened.
std::unique_ptr<HttpResponse> redirectToFolder(const HttpRequest& request)
{
    const std::string_view path = request.path;
    std::string location = percentEncoded(path.substr(path.rfind('/') + 1)) + "/";
    if (!request.query.empty())
        location += "?" + request.query;
    auto response = std::make_unique<HttpResponse>(308);
    response->headers.add("Location", std::move(location));
    response->headers.add("X-Content-Type-Options", "nosniff");
    return response;
}

} // namespace

MessageFuture StaticContentServiceProvider::get(Request&& request, Address&&, std::shared_ptr<Context>&&)
{
    return makeReadyFuture(std::unique_ptr<Message>(answer(*request)));
}

std::unique_ptr<HttpResponse> StaticContentServiceProvider::answer(const HttpRequest& request) const
{
    auto found = service_->find(request.path, content::acceptedCodings(request.headers));
    // Whether there is such a file is not told either.
    if (found.userFiles && request.cookieOnly)
        return refusal(request, 401, "Files of the user's own are not for a cookie alone.");
    switch (found.kind) {
    case content::FoundContent::Kind::file:
        return content::answerWithFile(request, std::move(found));
    case content::FoundContent::Kind::folder:
        return redirectToFolder(request);
    case content::FoundContent::Kind::nothing:
        break;
    }
    return refusal(request, 404, "File not found.");
}

} // namespace connector::http
