#pragma once

#include <atomic>
#include <chrono>

#include "connector/http/PocoHttpsServer.h"
#include "connector/http/engine/RequestHead.h"

namespace connector::http::engine {

/// What all connections of one server share.
struct ServerCore
{
    ServerCore(ServerSettings serverSettings, PocoHttpsServer::Handler serverHandler)
        : settings(std::move(serverSettings)), handler(std::move(serverHandler)),
          idleTimeout(settings.parameters->getKeepAliveTimeout().totalMilliseconds()),
          writeTimeout(settings.parameters->getTimeout().totalMilliseconds())
    {
        limits.headBytes = settings.maxHeadBytes;
        limits.bodyBytes = settings.maxBodyBytes;
    }

    const ServerSettings settings;
    const PocoHttpsServer::Handler handler;
    const std::chrono::milliseconds idleTimeout;
    const std::chrono::milliseconds writeTimeout;
    RequestLimits limits;

    std::atomic<std::uint64_t> connections{0};
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> turnedAway{0};
    std::atomic<std::uint64_t> requests{0};
    std::atomic<std::uint64_t> requestsInFlight{0};
    std::atomic<std::uint64_t> refusedRequests{0};
    std::atomic<std::uint64_t> failedRequests{0};
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
