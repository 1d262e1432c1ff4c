#include "connector/http/HttpPathFilterServiceProvider.h"

#include <algorithm>

#include "connector/core/Connector.h"
#include "connector/http/WholeMatch.h"

namespace connector::http {

HttpPathFilterServiceProvider::HttpPathFilterServiceProvider(std::vector<boost::regex>&& whiteList,
                                                             unsigned short status, std::string body)
    : whiteList_(std::move(whiteList)), status_(status), body_(std::move(body))
{}

std::vector<boost::regex> HttpPathFilterServiceProvider::defaultWhiteList()
{
    // A segment is one piece (possessive): a long path costs no more than its length.
    const std::string segments = "(?:/[^./][^/]*+)*+";
    const std::string kinds = "html?|css|m?js|json|map|txt|md|csv|xml|svg|png|jpe?g|gif|webp|avif|ico|woff2?|ttf|otf|"
                              "wasm|pdf|mp4|webm|mp3|ogg|wav";
    // The commonest first.
    return {
        boost::regex("(?=.*\\.(?:" + kinds + ")$)" + segments, boost::regex::icase),
        boost::regex(segments + "/"),              // folders
        boost::regex("(?=.*/[^./]+$)" + segments), // names without a kind
    };
}

bool HttpPathFilterServiceProvider::isAllowed(const std::string& path) const
{
    return std::any_of(whiteList_.begin(), whiteList_.end(),
                       [&path](const auto& allowed) { return matchesWhole(path, allowed); });
}

MessageFuture HttpPathFilterServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                                                        std::shared_ptr<Context>&& context)
{
    if (!isAllowed(request->path))
        return makeReadyFuture<std::unique_ptr<Message>>(refusal(*request, status_, body_));
    const auto connector = context->connector();
    return connector->handle(std::move(request), std::move(rest), std::move(context));
}

} // namespace connector::http
