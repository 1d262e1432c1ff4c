#pragma once

#include <atomic>
#include <chrono>

#include "connector/http/PocoHttpsServer.h"
#include "connector/http/engine/DescriptorLimit.h"
#include "connector/http/engine/RequestHead.h"
#include "connector/http/engine/TlsContext.h"

namespace connector::http::engine {

/// What all connections of one server share.
struct ServerCore
{
    ServerCore(ServerSettings serverSettings, PocoHttpsServer::Handler serverHandler)
        : settings(std::move(serverSettings)), handler(std::move(serverHandler)),
          idleTimeout(settings.parameters->getKeepAliveTimeout().totalMilliseconds()),
          writeTimeout(settings.parameters->getTimeout().totalMilliseconds()),
          maxConnections(affordableConnections(settings.maxConnections))
    {
        limits.headBytes = settings.maxHeadBytes;
        limits.bodyBytes = settings.maxBodyBytes;
        if (settings.tls)
            tls = makeTlsContext(*settings.tls);
    }

    const ServerSettings settings;
    const PocoHttpsServer::Handler handler;
    const std::chrono::milliseconds idleTimeout;
    const std::chrono::milliseconds writeTimeout;
    const std::size_t maxConnections;
    RequestLimits limits;

    std::unique_ptr<boost::asio::ssl::context> tls; ///< null without TLS

    std::atomic<std::uint64_t> heldBodyBytes{0};
    std::atomic<std::uint64_t> spooledBytes{0};
    std::atomic<std::uint64_t> connections{0};
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> turnedAway{0};
    std::atomic<std::uint64_t> requests{0};
    std::atomic<std::uint64_t> requestsInFlight{0};
    std::atomic<std::uint64_t> refusedRequests{0};
    std::atomic<std::uint64_t> failedRequests{0};
};

/// One request's body in the sum of all that are held. Grown by the connection, released by whoever has the answer, on
/// any thread, before a byte of it is sent: a client that has its answer finds the room free.
class BodyHold
{
public:
    explicit BodyHold(std::shared_ptr<ServerCore> core) : core_(std::move(core)) {}
    ~BodyHold() { release(); }
    BodyHold(const BodyHold&) = delete;
    BodyHold& operator=(const BodyHold&) = delete;

    /// False when all bodies together are more than is allowed.
    bool growTo(std::uint64_t bytes)
    {
        const auto added = bytes - bytes_.exchange(bytes);
        return added == 0 || core_->heldBodyBytes.fetch_add(added) + added <= core_->settings.maxHeldBodyBytes;
    }

    void release() noexcept { core_->heldBodyBytes -= bytes_.exchange(0); }

private:
    const std::shared_ptr<ServerCore> core_;
    std::atomic<std::uint64_t> bytes_{0};
};

/// One connection, counted while this lives.
class ConnectionCount
{
public:
    explicit ConnectionCount(std::shared_ptr<ServerCore> core) : core_(std::move(core)) { ++core_->connections; }
    ~ConnectionCount() { --core_->connections; }
    ConnectionCount(const ConnectionCount&) = delete;
    ConnectionCount& operator=(const ConnectionCount&) = delete;

private:
    std::shared_ptr<ServerCore> core_;
};

} // namespace connector::http::engine
