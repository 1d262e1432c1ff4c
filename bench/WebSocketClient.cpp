#include "WebSocketClient.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace {

constexpr std::size_t kLongestMessage = std::size_t{256} << 20;
constexpr timeval kPatience{60, 0};

constexpr unsigned kText = 1;
constexpr unsigned kClose = 8;
constexpr unsigned kPing = 9;
constexpr unsigned kPong = 10;

} // namespace

struct WebSocketClient::Frame
{
    bool last = true;
    unsigned opcode = 0;
    std::string_view payload;
};

WebSocketClient::WebSocketClient(std::uint16_t port, const std::string& path, const std::string& token)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    try {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::system_error(errno, std::generic_category(), "connect to port " + std::to_string(port));
        const int on = 1;
        ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
        write("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n" +
              (token.empty() ? "" : "Authorization: Bearer " + token + "\r\n") +
              "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        std::size_t end = std::string::npos;
        while ((end = buffer_.find("\r\n\r\n")) == std::string::npos)
            read();
        if (!buffer_.starts_with("HTTP/1.1 101"))
            throw std::runtime_error("no WebSocket at " + path + ": " + buffer_.substr(0, 200));
        used_ = end + 4;
    } catch (...) {
        ::close(socket_);
        throw;
    }
}

WebSocketClient::~WebSocketClient() { ::close(socket_); }

void WebSocketClient::write(std::string_view bytes)
{
    while (!bytes.empty()) {
        const auto count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0)
            throw std::system_error(errno, std::generic_category(), "send");
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

void WebSocketClient::sendFrame(unsigned opcode, std::string_view payload)
{
    std::string frame(1, static_cast<char>(0x80 | opcode));
    const std::size_t size = payload.size();
    const unsigned bytes = size < 126 ? 0 : size < 65536 ? 2 : 8;
    frame += static_cast<char>(0x80 | (bytes == 0 ? size : bytes == 2 ? 126 : 127));
    for (unsigned i = bytes; i > 0; --i)
        frame += static_cast<char>(size >> (8 * (i - 1)) & 0xff);
    frame.append(4, '\0'); // a mask that changes nothing
    frame += payload;
    write(frame);
}

void WebSocketClient::send(std::string_view text) { sendFrame(kText, text); }

void WebSocketClient::acknowledgeAtOnce() { atOnce_ = true; }

void WebSocketClient::read()
{
    const int on = 1;
    if (atOnce_) // lasts for a while only
        ::setsockopt(socket_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    char bytes[65536];
    const auto count = ::recv(socket_, bytes, sizeof bytes, 0);
    if (count <= 0)
        throw std::runtime_error(count == 0 ? "the server closed the connection"
                                            : "nothing came: " + std::generic_category().message(errno));
    if (used_ > 0) {
        buffer_.erase(0, used_);
        used_ = 0;
    }
    buffer_.append(bytes, static_cast<std::size_t>(count));
}

bool WebSocketClient::nextFrame(Frame& frame)
{
    const std::string_view left = std::string_view(buffer_).substr(used_);
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(left[at]); };
    if (left.size() < 2)
        return false;
    std::size_t size = byte(1) & 0x7fU;
    const std::size_t head = size < 126 ? 2 : size == 126 ? 4 : 10;
    if (left.size() < head)
        return false;
    if (head > 2) {
        size = 0;
        for (std::size_t i = 2; i < head; ++i)
            size = size << 8 | byte(i);
    }
    if (size > kLongestMessage)
        throw std::runtime_error("a message of " + std::to_string(size) + " bytes");
    if (left.size() < head + size)
        return false;
    frame = {(byte(0) & 0x80U) != 0, byte(0) & 0x0fU, left.substr(head, size)};
    used_ += head + size;
    return true;
}

bool WebSocketClient::next(std::string& message)
{
    Frame frame;
    while (nextFrame(frame)) {
        if (frame.opcode == kClose)
            throw std::runtime_error("the server closed: " +
                                     std::string(frame.payload.substr(std::min<std::size_t>(2, frame.payload.size()))));
        if (frame.opcode == kPing)
            sendFrame(kPong, frame.payload);
        if (frame.opcode >= kClose)
            continue;
        if (parts_.size() + frame.payload.size() > kLongestMessage)
            throw std::runtime_error("a message in parts is too long");
        if (frame.last && parts_.empty()) {
            message.assign(frame.payload);
            return true;
        }
        parts_ += frame.payload;
        if (frame.last) {
            message.swap(parts_);
            parts_.clear();
            return true;
        }
    }
    return false;
}
