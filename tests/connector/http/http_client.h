#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace connector::http::test {

/// One response as it came over the wire.
struct WireResponse
{
    unsigned status = 0;
    std::string head; ///< with the status line
    std::string body;

    std::string header(std::string_view name) const; ///< "" for none
};

/// A blocking socket to a server on this machine, for literal wire text. Every wait has a deadline of ten seconds,
/// after which std::runtime_error is thrown.
class WireClient
{
public:
    explicit WireClient(std::uint16_t port) : WireClient("127.0.0.1", port) {}
    /// `address`: numeric, IPv4 or IPv6.
    WireClient(const std::string& address, std::uint16_t port);
    /// A Unix-domain socket.
    explicit WireClient(const std::string& path);
    ~WireClient();
    WireClient(WireClient&& other) noexcept : socket_(std::exchange(other.socket_, -1)), bytes_(std::move(other.bytes_))
    {}
    WireClient(const WireClient&) = delete;
    WireClient& operator=(const WireClient&) = delete;
    WireClient& operator=(WireClient&&) = delete;

    void send(std::string_view bytes);
    /// As `send`, but a server that closes while it still gets bytes is no error.
    void sendWhatGoes(std::string_view bytes);
    void finishSending();
    /// Resets the connection.
    void abort();

    /// The next response; without a body for `withoutBody` (the answer to HEAD).
    WireResponse receive(bool withoutBody = false);
    /// Up to and with an empty line.
    std::string receiveHead();
    /// Exactly so many bytes.
    std::string take(std::size_t count);
    /// Everything until the server closes.
    std::string rest();
    /// Whether the server closed, and sent nothing before.
    bool isClosed();
    WireResponse ask(std::string_view request)
    {
        send(request);
        return receive();
    }

private:
    void connect(int family, const void* address, std::size_t size, const std::string& place);
    bool fill();

    int socket_ = -1;
    std::string bytes_;
};

/// Waits until `condition` holds; false when it does not within ten seconds.
bool eventually(const std::function<bool()>& condition);

} // namespace connector::http::test
