#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include <Poco/Net/HTTPServerParams.h>

#include "connector/Export.h"

namespace connector::http {

/// How a server listens, and what it takes from a client.
struct CONNECTOR_API ServerSettings
{
    /// Loopback, any free port, two I/O threads, the limits of docs/http.md.
    ServerSettings();
    ~ServerSettings();
    ServerSettings(const ServerSettings&);
    ServerSettings& operator=(const ServerSettings&);

    std::string address = "127.0.0.1"; ///< numeric, or "localhost"
    std::uint16_t port = 0;            ///< 0: any free one

    /// Threads (getMaxThreads), listen backlog (getMaxQueued), requests per connection (getMaxKeepAliveRequests, 0 for
    /// no limit), time between two requests (getKeepAliveTimeout) and time without progress while a response is
    /// written (getTimeout).
    Poco::Net::HTTPServerParams::Ptr parameters;

    std::size_t maxConnections = 10'000; ///< and at most three quarters of the descriptors this process may have
    std::size_t maxHeadBytes = 32u << 10;
    std::uint64_t maxBodyBytes = 64u << 20;
    /// Of all requests at a time that are read or served; beyond it a request is refused with 503.
    std::uint64_t maxHeldBodyBytes = 512u << 20;
    std::chrono::milliseconds headTimeout{10'000};
    std::chrono::milliseconds bodyTimeout{60'000};
    /// Bytes per second below which a body is given up once it took `bodyRateGrace`.
    std::uint64_t minBodyRate = 1'024;
    std::chrono::milliseconds bodyRateGrace{10'000};
    /// How long a connection that is being closed may stay to read the last answer.
    std::chrono::milliseconds lingerTimeout{2'000};
    /// How long `close` waits for answers that are being written.
    std::chrono::milliseconds stopTimeout{250};
};

} // namespace connector::http
