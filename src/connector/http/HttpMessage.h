#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"
#include "connector/http/HttpBody.h"

namespace connector::http {

/// Header fields in order of arrival; names compare without letter case. Names are tokens, values hold no control
/// characters: `add` and `set` throw std::invalid_argument otherwise (RFC 9110 §5).
class CONNECTOR_API Headers
{
public:
    using Field = std::pair<std::string, std::string>;

    void add(std::string name, std::string value);
    /// Replaces all fields of the name.
    void set(std::string name, std::string value);
    void remove(std::string_view name);
    /// The first field's value; null when there is none.
    const std::string* find(std::string_view name) const noexcept;
    std::string get(std::string_view name) const; ///< as `find`, "" for none
    std::size_t count(std::string_view name) const noexcept;
    const std::vector<Field>& fields() const noexcept { return fields_; }

private:
    std::vector<Field> fields_;
};

class HttpServiceProvider;
struct WebSocketUpgrade;

/// Whether somebody let the client of a connection in. Any thread.
class Admission
{
public:
    void grant() noexcept { granted_.store(true, std::memory_order_relaxed); }
    bool isGranted() const noexcept { return granted_.load(std::memory_order_relaxed); }

private:
    std::atomic<bool> granted_{false};
};

/// One request. A body that came along with its head has been read; any other is asked for by who wants it.
class CONNECTOR_API HttpRequest final : public ServiceMessage<HttpServiceProvider>
{
public:
    std::string method;    ///< "GET", as sent
    std::string target;    ///< as sent, origin form: "/a%20b?x=1"
    std::string path;      ///< decoded once, checked, starts with "/"
    std::string query;     ///< not decoded, without "?"
    std::string authority; ///< host and port asked for, from Host or an absolute target
    Headers headers;
    std::string body;
    std::shared_ptr<PendingBody> pendingBody; ///< null when `body` is the whole body; else `body` is empty
    std::string peerAddress;                  ///< numeric, without port; "unix" for a Unix-domain socket
    std::uint16_t localPort = 0;              ///< the port it came in on; 0 when it came from no socket
    bool secure = false;                      ///< came over TLS
    bool keepAlive = true;
    /// Asked for by a name that servers of this machine have in turn (localhost, 127.0.0.1, [::1]): what a browser
    /// keeps for such a name may be another server's. The localhost filter says it.
    bool sharedHost = false;
    /// Let in by a cookie alone, which browsers send to other ports as well: what the user keeps to himself is not for
    /// it. The guard says it.
    bool cookieOnly = false;
    std::shared_ptr<Admission> admission; ///< of its connection; null when it came from no socket

    /// For the guard that lets the client in: until then its connection ends with the first refusal, and is the first
    /// to go when there are too many.
    void admit() const noexcept
    {
        if (admission)
            admission->grant();
    }

    MessageFuture deliverTo(std::shared_ptr<HttpServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

/// What was received, in memory. Reads a file, which takes a while for a large one. Throws std::runtime_error when it
/// cannot be read.
CONNECTOR_API std::string textOf(ReceivedBody body);

/// The request with its whole body in memory, for providers that need all of it at once. Fails as
/// PendingBody::receive, with 413 for a body of more than `maxBytes`.
CONNECTOR_API Future<std::unique_ptr<HttpRequest>> readWhole(std::unique_ptr<HttpRequest>&& request,
                                                             std::uint64_t maxBytes);

/// One answer. Its body is one of `body`, `parts` and `producer`.
class CONNECTOR_API HttpResponse final : public Message
{
public:
    HttpResponse() = default;
    explicit HttpResponse(unsigned statusCode) : status(statusCode) {}
    HttpResponse(unsigned statusCode, std::string contentType, std::string content);

    unsigned status = 200;
    Headers headers; ///< Content-Length, Date and Connection are the engine's
    std::string body;
    std::vector<BodyPart> parts;            ///< sent one after the other, when there are any
    std::unique_ptr<BodyProducer> producer; ///< sent in chunks, or until the connection ends to an HTTP/1.0 client
    std::shared_ptr<const WebSocketUpgrade> upgrade; ///< with status 101 only; see WebSocket.h

    /// Bytes of body or parts; none for a producer.
    std::optional<std::uint64_t> contentLength() const noexcept;
};

/// The reason phrase of a status code ("Not Found"), "" for one without a name.
CONNECTOR_API const char* reasonPhrase(unsigned status) noexcept;

/// A short refusal, as JSON ({"error": …}) when the Accept header asks for it, else as text.
CONNECTOR_API std::unique_ptr<HttpResponse> refusal(const HttpRequest& request, unsigned status, std::string_view text);
/// The same for a caller that no longer has the request.
CONNECTOR_API std::unique_ptr<HttpResponse> refusal(bool asJson, unsigned status, std::string_view text);
/// Whether the Accept header asks for JSON.
CONNECTOR_API bool prefersJson(const Headers& headers) noexcept;

} // namespace connector::http
