#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include <Poco/Net/HTTPServerParams.h>

#include "connector/Export.h"

namespace connector::http {

/// PEM files. The key is not encrypted and only the user can read it.
struct TlsFiles
{
    std::filesystem::path certificate; ///< with the chain behind it
    std::filesystem::path key;
};

/// How a server listens, and what it takes from a client.
struct CONNECTOR_API ServerSettings
{
    /// Loopback, any free port, two I/O threads, the limits of docs/http.md.
    ServerSettings();
    ~ServerSettings();
    ServerSettings(const ServerSettings&);
    ServerSettings& operator=(const ServerSettings&);

    std::string address = "localhost"; ///< numeric, or "localhost": 127.0.0.1 and, where there is IPv6, ::1
    std::uint16_t port = 0;            ///< 0: any free one
    std::string unixSocket;      ///< path of a Unix-domain socket to listen on as well, always without TLS; "" for none
    std::optional<TlsFiles> tls; ///< none: the port speaks plain HTTP

    /// Threads (getMaxThreads), listen backlog (getMaxQueued), requests per connection (getMaxKeepAliveRequests, 0 for
    /// no limit), time between two requests (getKeepAliveTimeout) and time without progress while a response is
    /// written (getTimeout).
    Poco::Net::HTTPServerParams::Ptr parameters;

    std::size_t maxConnections = 10'000; ///< and at most three quarters of the descriptors this process may have
    std::size_t maxHeadBytes = 32u << 10;
    std::uint64_t maxBodyBytes = 4ull << 30;
    std::uint64_t memoryBodyBytes = 1u << 20; ///< a larger body goes to a file, when a provider asks for it
    /// Of all requests at a time that are read or served; beyond it a request is refused with 503.
    std::uint64_t maxHeldBodyBytes = 512u << 20;   ///< in memory
    std::uint64_t maxSpooledBytes = 16ull << 30;   ///< in files
    std::filesystem::path spoolFolder{"/var/tmp"}; ///< not one that is kept in memory
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
