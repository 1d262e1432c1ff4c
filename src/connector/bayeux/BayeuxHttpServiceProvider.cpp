#include "connector/bayeux/BayeuxHttpServiceProvider.h"

#include <string_view>

#include "connector/core/Connector.h"
#include "connector/http/WebSocket.h"

namespace connector::bayeux {

namespace {

constexpr const char* kAllow = "POST, OPTIONS";

bool hasParameter(std::string_view query, std::string_view name)
{
    while (!query.empty()) {
        const auto parameter = query.substr(0, query.find('&'));
        if (parameter.substr(0, parameter.find('=')) == name)
            return true;
        query.remove_prefix(std::min(parameter.size() + 1, query.size()));
    }
    return false;
}

MessageFuture answerWith(std::unique_ptr<http::HttpResponse> response)
{
    return makeReadyFuture<std::unique_ptr<Message>>(std::move(response));
}

} // namespace

BayeuxHttpServiceProvider::BayeuxHttpServiceProvider(Address longPoll, Address webSocket, Address callbackPoll)
    : longPoll_{"long-polling", std::move(longPoll)}, webSocket_{"websocket", std::move(webSocket)},
      callbackPoll_{"callback-polling", std::move(callbackPoll)}
{}

/// Null for a request that is none of a client of the bus.
const BayeuxHttpServiceProvider::Transport* BayeuxHttpServiceProvider::choose(const http::HttpRequest& request) const
{
    if (http::asksForWebSocket(request))
        return &webSocket_;
    if (request.method == "POST")
        return &longPoll_;
    if (request.method == "GET" && hasParameter(request.query, "jsonp"))
        return &callbackPoll_;
    return nullptr;
}

MessageFuture BayeuxHttpServiceProvider::handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&&,
                                                    std::shared_ptr<Context>&& context)
{
    if (const auto* transport = choose(*request)) {
        if (transport->address.empty())
            return answerWith(http::refusal(
                *request, 400, "The connection type " + std::string(transport->name) + " is not served here."));
        const auto connector = context->connector();
        return connector->handle(std::move(request), Address(transport->address), std::move(context));
    }
    auto response = request->method == "OPTIONS"
                        ? std::make_unique<http::HttpResponse>(204)
                        : http::refusal(*request, 405, "The method " + request->method + " is not allowed here.");
    response->headers.add("Allow", kAllow);
    return answerWith(std::move(response));
}

} // namespace connector::bayeux
