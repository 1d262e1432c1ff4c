#pragma once

#include "connector/http/HttpServiceProvider.h"

namespace connector::bayeux {

/// The one URL of the message bus: hands each request on to the transport it is made for, whatever stands below the
/// route's path (clients append "/handshake", "/connect" and the like).
///
/// | request | goes to |
/// | WebSocket handshake | `webSocket` |
/// | POST | `longPoll` |
/// | GET with "jsonp" in its query | `callbackPoll` |
/// | OPTIONS | 204 with Allow |
/// | other | 405 with Allow |
///
/// An empty address is a transport that is not served: 400, which names it. What the route's address holds after this
/// provider is a default that can be read off the list of routes; the chosen address takes its place.
class CONNECTOR_API BayeuxHttpServiceProvider final : public http::HttpServiceProvider
{
public:
    BayeuxHttpServiceProvider(Address longPoll, Address webSocket, Address callbackPoll);

    MessageFuture handleHttp(std::unique_ptr<http::HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    struct Transport
    {
        const char* name; ///< as in "supportedConnectionTypes"
        Address address;
    };

    const Transport* choose(const http::HttpRequest& request) const;

    const Transport longPoll_;
    const Transport webSocket_;
    const Transport callbackPoll_;
};

} // namespace connector::bayeux
