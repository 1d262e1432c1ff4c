#include "connector/http/VendraToolboxStaticContentServiceProvider.h"

#include <algorithm>

#include "connector/core/Connector.h"
#include "connector/http/HttpText.h"

namespace connector::http {

namespace {

constexpr std::string_view kReleases = "/vendra/toolbox/~";
constexpr std::size_t kMaxReleaseLength = 64;

bool isRelease(std::string_view text) noexcept
{
    return !text.empty() && text.size() <= kMaxReleaseLength && text.front() != '.' &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                      c == '_' || c == '-';
           });
}

/// Takes the release's segment out, if there is one. What is left is as legal as the path was: no segment of it is new.
bool removeRelease(std::string& path)
{
    if (!path.starts_with(kReleases))
        return false;
    const auto end = path.find('/', kReleases.size());
    if (end == std::string::npos || path.compare(end, 2, "//") == 0 ||
        !isRelease(std::string_view(path).substr(kReleases.size(), end - kReleases.size())))
        return false;
    const auto begin = kReleases.size() - 1;
    path.erase(begin, end + 1 - begin);
    return true;
}

/// Refusals and redirects are not kept: what they say may change within a release.
void allowKeeping(HttpResponse& response)
{
    if (response.status != 200 && response.status != 206 && response.status != 304)
        return;
    for (const auto& [name, value] : response.headers.fields())
        if (equalsIgnoringCase(name, "Cache-Control") && listHas(value, "no-store"))
            return;
    response.headers.set("Cache-Control", "private, max-age=31536000, immutable");
}

} // namespace

MessageFuture VendraToolboxStaticContentServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&& request,
                                                                    Address&& rest, std::shared_ptr<Context>&& context)
{
    const bool released = removeRelease(request->path);
    const auto connector = context->connector();
    auto answer = connector->handle(std::move(request), std::move(rest), std::move(context));
    if (!released)
        return answer;
    return answer.then([](MessageFuture settled) {
        auto message = settled.get();
        if (auto* response = dynamic_cast<HttpResponse*>(message.get()))
            allowKeeping(*response);
        return message;
    });
}

} // namespace connector::http
