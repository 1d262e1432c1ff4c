#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "connector/Export.h"
#include "connector/core/CancellationToken.h"
#include "connector/core/ServiceProvider.h"
#include "connector/http/HttpMessage.h"
#include "connector/http/ServerSettings.h"

namespace connector::http {

/// What a server has done since it opened, and what it is doing.
struct ServerCounters
{
    std::uint64_t connections = 0;      ///< open now
    std::uint64_t accepted = 0;         ///< connections in all
    std::uint64_t turnedAway = 0;       ///< connections beyond the limit
    std::uint64_t requests = 0;         ///< handed to the handler
    std::uint64_t requestsInFlight = 0; ///< of these, without an answer yet
    std::uint64_t refusedRequests = 0;  ///< refused by the engine: bad, too large, too slow
    std::uint64_t failedRequests = 0;   ///< answered with "Internal error."
};

/// Listens on one port and turns requests into messages and back. Threads: any.
class CONNECTOR_API PocoHttpsServer final
{
public:
    /// A request at work: its answer, an HttpResponse, and who is told when the client goes away (may be null).
    struct Exchange
    {
        MessageFuture answer;
        std::shared_ptr<CancellationToken> cancellation;
    };
    /// Called on an I/O thread, for several requests at a time; must not block. What it throws is answered as a failed
    /// future is.
    using Handler = std::function<Exchange(std::unique_ptr<HttpRequest>)>;

    /// Prepares the network and TLS libraries. May be called again; servers that are open stay so.
    static void initializeConnectorSSL();

    PocoHttpsServer(ServerSettings settings, Handler handler);
    /// Closes.
    ~PocoHttpsServer();
    PocoHttpsServer(const PocoHttpsServer&) = delete;
    PocoHttpsServer& operator=(const PocoHttpsServer&) = delete;

    /// Listens. Throws std::runtime_error "Cannot listen on 127.0.0.1:8080: Address already in use", std::logic_error
    /// when it is open. May be called again after `close`.
    void open();

    /// The port in use, 0 when closed.
    std::uint16_t port() const;

    /// Stops accepting, drops idle connections, answers what is in flight with 503, cancels its future and ends the
    /// I/O threads, in at most `stopTimeout` and without waiting for any handler. Does nothing when closed; of two
    /// calls at a time the second returns at once. On one of the I/O threads, that thread ends after the call.
    void close();

    ServerCounters counters() const;

private:
    struct Run;

    const ServerSettings settings_;
    const Handler handler_;
    mutable std::mutex mutex_;
    std::shared_ptr<Run> run_; ///< null when closed
};

} // namespace connector::http
