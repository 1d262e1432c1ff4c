#include "HttpClient.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

HttpClient::HttpClient(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), "connect to port " + std::to_string(port));
    const int on = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

HttpClient::~HttpClient() { ::close(socket_); }

std::string HttpClient::exchange(const std::string& request)
{
    if (::send(socket_, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        throw std::runtime_error("the request was not sent whole");

    std::size_t bodyStart = std::string::npos;
    std::size_t end = std::string::npos;
    while (received_.size() < end || end == std::string::npos) {
        char buffer[16 * 1024];
        const auto got = ::recv(socket_, buffer, sizeof buffer, 0);
        if (got <= 0)
            throw std::runtime_error("the connection was closed");
        received_.append(buffer, static_cast<std::size_t>(got));
        if (const auto headEnd = received_.find("\r\n\r\n");
            bodyStart == std::string::npos && headEnd != std::string::npos) {
            const auto length = received_.find("Content-Length: ");
            const bool empty = received_.starts_with("HTTP/1.1 204");
            if (!empty && (!received_.starts_with("HTTP/1.1 200") || length == std::string::npos))
                throw std::runtime_error("unexpected answer: " + received_);
            bodyStart = headEnd + 4;
            end = empty ? bodyStart : bodyStart + std::stoul(received_.substr(length + 16));
        }
    }
    std::string body = received_.substr(bodyStart, end - bodyStart);
    received_.erase(0, end);
    return body;
}

std::string postRequest(std::uint16_t port, const std::string& path, const std::string& token, const std::string& body)
{
    return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\nAuthorization: Bearer " +
           token + "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}
