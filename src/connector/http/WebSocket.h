#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"

namespace connector::http {

/// When a message goes out. The order of a connection's messages is that of the calls in any case.
enum class SendWhen
{
    soon,     ///< with what others have for the client meanwhile
    withNext, ///< with the next message, or by itself a few milliseconds later
    now       ///< written by the calling thread where the socket takes it: for what a client waits for, not for streams
};

/// The sending side of one open WebSocket (RFC 6455). Threads: any.
class CONNECTOR_API WebSocketConnection
{
public:
    virtual ~WebSocketConnection() = default;
    /// Queues a message: UTF-8 text, or bytes. False when the connection is over, and when the queue is full: such a
    /// client is closed with 1008.
    virtual bool send(std::string message, bool binary = false) = 0;
    /// The same for text that many connections get: it is shared and framed where it stands.
    virtual bool send(std::shared_ptr<const std::string> text, SendWhen when) = 0;
    /// Closes in order, after what is queued. `reason`: UTF-8, at most 123 bytes.
    virtual void close(std::uint16_t code = 1000, const std::string& reason = {}) = 0;
    /// Waits until three quarters of what may be queued are free, or the connection is over; false when that takes
    /// longer. Not on an I/O thread.
    virtual bool waitForRoom(std::chrono::milliseconds patience) = 0;
    /// Bytes that wait to be sent.
    virtual std::size_t queuedBytes() const = 0;
};

/// Who serves a WebSocket. Called on the connection's I/O thread, one call at a time; must not block or throw.
class CONNECTOR_API WebSocketEndpoint
{
public:
    virtual ~WebSocketEndpoint() = default;
    /// First, once. The endpoint may keep `connection`; keeping it beyond `closed` costs nothing but memory.
    virtual void opened(std::shared_ptr<WebSocketConnection> connection) = 0;
    /// A whole message; text has been checked to be UTF-8.
    virtual void received(std::string message, bool binary) = 0;
    /// Last, once, however the connection ended; 1006 when no close frame came. Not called without `opened`.
    virtual void closed(std::uint16_t code, const std::string& reason) = 0;
};

struct WebSocketOptions
{
    std::size_t maxMessageBytes = 1u << 20; ///< of a message received; beyond it the connection is closed with 1009
    std::size_t maxQueuedBytes = 4u << 20;
    std::chrono::milliseconds idleTime{60'000}; ///< a client of which nothing is heard gets a ping after half of it
    bool compression =
        false; ///< permessage-deflate (RFC 7692) where the client offers it; both limits count inflated bytes
    std::string protocol; ///< Sec-WebSocket-Protocol of the answer; "" for none
};

/// What an answer with status 101 hands its connection to.
struct WebSocketUpgrade
{
    std::shared_ptr<WebSocketEndpoint> endpoint;
    WebSocketOptions options;
};

/// Whether the request asks for a WebSocket (Upgrade names it).
CONNECTOR_API bool asksForWebSocket(const HttpRequest& request);

/// The answer that hands the request's connection to `endpoint`; a refusal (400, 405, 426) when the handshake is not
/// one by RFC 6455 §4.2.1. Who may connect has been decided before.
CONNECTOR_API std::unique_ptr<HttpResponse>
acceptWebSocket(const HttpRequest& request, std::shared_ptr<WebSocketEndpoint> endpoint, WebSocketOptions options = {});

} // namespace connector::http
