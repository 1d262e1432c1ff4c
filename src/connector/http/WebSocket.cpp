#include "connector/http/WebSocket.h"

#include <Poco/Base64Decoder.h>

#include <iterator>
#include <sstream>

#include "connector/http/HttpText.h"

namespace connector::http {

namespace {

/// Sixteen bytes in base64 (RFC 6455 §4.2.1).
bool isHandshakeKey(const std::string& key)
{
    if (key.size() != 24 || !key.ends_with("=="))
        return false;
    try {
        std::istringstream encoded(key);
        Poco::Base64Decoder decoder(encoded);
        return std::distance(std::istreambuf_iterator<char>(decoder), {}) == 16;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

bool asksForWebSocket(const HttpRequest& request)
{
    const std::string* upgrade = request.headers.find("Upgrade");
    return upgrade && listHas(*upgrade, "websocket");
}

std::unique_ptr<HttpResponse> acceptWebSocket(const HttpRequest& request, std::shared_ptr<WebSocketEndpoint> endpoint,
                                              WebSocketOptions options)
{
    const Headers& headers = request.headers;
    if (request.method != "GET")
        return refusal(request, 405, "A WebSocket is opened by GET.");
    if (!asksForWebSocket(request) || !listHas(headers.get("Connection"), "upgrade")) {
        auto response = refusal(request, 426, "This address serves WebSockets only.");
        response->headers.add("Upgrade", "websocket");
        return response;
    }
    if (headers.get("Sec-WebSocket-Version") != "13" || headers.count("Sec-WebSocket-Version") != 1) {
        auto response = refusal(request, 426, "Only version 13 of the WebSocket protocol is spoken.");
        response->headers.add("Upgrade", "websocket");
        response->headers.add("Sec-WebSocket-Version", "13");
        return response;
    }
    if (headers.count("Sec-WebSocket-Key") != 1 || !isHandshakeKey(headers.get("Sec-WebSocket-Key")))
        return refusal(request, 400, "The handshake has no Sec-WebSocket-Key of sixteen bytes.");
    auto response = std::make_unique<HttpResponse>(101);
    response->upgrade =
        std::make_shared<const WebSocketUpgrade>(WebSocketUpgrade{std::move(endpoint), std::move(options)});
    return response;
}

} // namespace connector::http
