#include "connector/security/NonceGeneratorHttpServiceProvider.h"

#include <stdexcept>

#include "connector/http/BrowserHost.h"
#include "connector/http/HttpText.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"
#include "connector/security/EntryPage.h"

namespace connector::security {
namespace v1 {
namespace {

/// Where a browser enters: the name that the program asked for, unless other servers have had it.
std::string baseUrl(const http::HttpRequest& request)
{
    const std::string scheme = request.secure ? "https://" : "http://";
    http::Authority asked;
    if (!request.sharedHost || !http::Authority::parse(request.authority, asked))
        return scheme + request.authority + "/";
    const int port = asked.port < 0 ? request.localPort : asked.port;
    return scheme + http::browserHost() + (port == 0 ? "" : ":" + std::to_string(port)) + "/";
}

} // namespace

NonceGeneratorHttpServiceProvider::NonceGeneratorHttpServiceProvider(
    std::shared_ptr<NonceGeneratorHelper> helper, std::shared_ptr<configuration::Configuration> configuration)
    : helper_(std::move(helper)), configuration_(std::move(configuration)),
      credentials_(*configuration_, false) // the guard logs what is wrong with the access key
{}

std::vector<std::string> NonceGeneratorHttpServiceProvider::methods() const { return {"POST"}; }

MessageFuture NonceGeneratorHttpServiceProvider::post(Request&& request, Address&&, std::shared_ptr<Context>&&)
{
    if (!credentials_.areIn(*request))
        return makeReadyFuture<std::unique_ptr<Message>>(unauthorized(*request));
    request->admit();

    const auto life = std::chrono::seconds(configuration_->getInteger("security.entryLifeSeconds"));
    std::string nonce;
    try {
        nonce = helper_->makeEntryNonce(life);
    } catch (const std::runtime_error& error) {
        return makeReadyFuture<std::unique_ptr<Message>>(http::refusal(*request, 503, error.what()));
    }
    auto object = json::makeObject();
    object->set("nonce", nonce);
    object->set("url", helper_->makeUrl(baseUrl(*request), nonce));
    object->set("expiresInSeconds", static_cast<std::int64_t>(life.count()));
    auto response = std::make_unique<http::HttpResponse>(200, "application/json", json::write(object));
    response->headers.set("Cache-Control", "no-store");
    return makeReadyFuture<std::unique_ptr<Message>>(std::move(response));
}

} // namespace v1

NonceGeneratorHttpRouteProvider::NonceGeneratorHttpRouteProvider(std::shared_ptr<http::HttpRouter> router,
                                                                 Address address)
    : HttpRouteProvider(std::move(router))
{
    add(kPath, std::move(address));
}

} // namespace connector::security
