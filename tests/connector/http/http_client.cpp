#include "connector/http/http_client.h"

#include <cerrno>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace connector::http::test {

namespace {

constexpr int kDeadlineMilliseconds = 10'000;

} // namespace

std::string WireResponse::header(std::string_view name) const
{
    std::size_t line = head.find("\r\n");
    while (line != std::string::npos && line + 2 < head.size()) {
        const auto begin = line + 2;
        line = head.find("\r\n", begin);
        const std::string field = head.substr(begin, line - begin);
        const auto colon = field.find(':');
        if (colon == name.size() && strncasecmp(field.c_str(), name.data(), colon) == 0)
            return field.substr(field.find_first_not_of(' ', colon + 1));
    }
    return {};
}

void WireClient::connect(int family, const void* address, std::size_t size, const std::string& place)
{
    socket_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(socket_, static_cast<const sockaddr*>(address), static_cast<socklen_t>(size)) != 0) {
        ::close(socket_);
        throw std::runtime_error("Cannot connect to " + place);
    }
    const int on = 1;
    if (family != AF_UNIX)
        ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

WireClient::WireClient(const std::string& address, std::uint16_t port)
{
    const std::string place = "port " + std::to_string(port) + " of " + address;
    sockaddr_in four{};
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &four.sin_addr) == 1)
        connect(AF_INET, &four, sizeof four, place);
    else if (inet_pton(AF_INET6, address.c_str(), &six.sin6_addr) == 1)
        connect(AF_INET6, &six, sizeof six, place);
    else
        throw std::invalid_argument("Not an address: " + address);
}

WireClient::WireClient(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connect(AF_UNIX, &address, sizeof address, path);
}

WireClient::~WireClient()
{
    if (socket_ >= 0)
        ::close(socket_);
}

void WireClient::send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const auto count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0)
            throw std::runtime_error("The server does not take any more bytes");
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

void WireClient::sendWhatGoes(std::string_view bytes)
{
    try {
        send(bytes);
    } catch (const std::runtime_error&) {
        // The answer tells why.
    }
}

void WireClient::finishSending() { ::shutdown(socket_, SHUT_WR); }

void WireClient::abort()
{
    const linger hard{1, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::close(std::exchange(socket_, -1));
}

bool WireClient::fill()
{
    pollfd waiting{socket_, POLLIN, 0};
    if (::poll(&waiting, 1, kDeadlineMilliseconds) <= 0)
        throw std::runtime_error("Nothing came from the server; so far: " + bytes_.substr(0, 200));
    char chunk[65536];
    const auto count = ::recv(socket_, chunk, sizeof chunk, 0);
    if (count <= 0)
        return false;
    bytes_.append(chunk, static_cast<std::size_t>(count));
    return true;
}

std::string WireClient::receiveHead()
{
    std::size_t end = 0;
    while ((end = bytes_.find("\r\n\r\n")) == std::string::npos) {
        if (!fill())
            throw std::runtime_error("The server closed; so far: " + bytes_.substr(0, 200));
    }
    std::string head = bytes_.substr(0, end + 2);
    bytes_.erase(0, end + 4);
    return head;
}

WireResponse WireClient::receive(bool withoutBody)
{
    WireResponse response;
    response.head = receiveHead();
    response.status = static_cast<unsigned>(std::stoul(response.head.substr(9, 3)));
    const std::string length = response.header("Content-Length");
    const std::size_t wanted = withoutBody || length.empty() ? 0 : std::stoul(length);
    while (bytes_.size() < wanted) {
        if (!fill())
            throw std::runtime_error("The server closed within a body");
    }
    response.body = bytes_.substr(0, wanted);
    bytes_.erase(0, wanted);
    return response;
}

std::string WireClient::take(std::size_t count)
{
    while (bytes_.size() < count) {
        if (!fill())
            throw std::runtime_error("The server closed; so far: " + bytes_.substr(0, 200));
    }
    std::string taken = bytes_.substr(0, count);
    bytes_.erase(0, count);
    return taken;
}

std::string WireClient::rest()
{
    while (fill()) {
    }
    return std::exchange(bytes_, {});
}

bool WireClient::isClosed() { return bytes_.empty() && !fill(); }

bool eventually(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace connector::http::test
