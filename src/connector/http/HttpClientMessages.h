#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"
#include "connector/http/HttpMessage.h"

namespace connector::http {

class HttpClientServiceProvider;

/// Asks a server for something. To "connector/http/client"; the answer is an HttpClientResponse.
class CONNECTOR_API HttpClientRequest final : public ServiceMessage<HttpClientServiceProvider>
{
public:
    explicit HttpClientRequest(std::string address = {}) : url(std::move(address)) {}

    static constexpr unsigned kMostRedirects = 20;
    static constexpr std::uint64_t kMemoryBytes = 64u << 20;

    std::string method = "GET";
    std::string url;  ///< http or https, absolute, percent-encoded, without user information
    Headers headers;  ///< without those that frame a message (Host, Content-Length, Connection …)
    std::string body; ///< any bytes

    /// Where the body of a 2xx answer goes instead of into memory: replaced in one step when it is complete, readable
    /// by the user alone. The body of any other answer stays in memory.
    std::optional<std::filesystem::path> file;

    std::chrono::milliseconds timeout{30'000};       ///< for connecting, and for each wait for the server after that
    std::chrono::milliseconds totalTimeout{600'000}; ///< from the call to the end of the body, redirects included
    unsigned maxRedirects = 5;                       ///< 0: a redirection is the answer
    std::optional<std::uint64_t> maxBytes; ///< of the body; without it kMemoryBytes in memory and any number in a file

    MessageFuture deliverTo(std::shared_ptr<HttpClientServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

/// What the server said, whatever its status.
class CONNECTOR_API HttpClientResponse final : public Message
{
public:
    unsigned status = 0;
    std::string reason; ///< as sent, often empty
    Headers headers;
    std::string body;
    std::optional<std::filesystem::path> file; ///< absolute; `body` is empty then
    std::uint64_t bytes = 0;                   ///< of the body, wherever it is
    std::string url;                           ///< the last one asked, without fragment
};

} // namespace connector::http
