#include "connector/http/engine/SocketEnds.h"

#include <array>
#include <utility>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace connector::http::engine {

namespace {

std::pair<std::string, std::uint16_t> describe(const sockaddr_storage& end)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (end.ss_family == AF_INET) {
        const auto& four = reinterpret_cast<const sockaddr_in&>(end);
        inet_ntop(AF_INET, &four.sin_addr, text.data(), text.size());
        return {text.data(), ntohs(four.sin_port)};
    }
    if (end.ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(end);
        inet_ntop(AF_INET6, &six.sin6_addr, text.data(), text.size());
        return {text.data(), ntohs(six.sin6_port)};
    }
    return {end.ss_family == AF_UNIX ? "unix" : "", 0};
}

} // namespace

SocketEnds endsOf(int socket)
{
    SocketEnds ends;
    sockaddr_storage end{};
    socklen_t length = sizeof(end);
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&end), &length) == 0)
        ends.peerAddress = describe(end).first;
    end = {};
    length = sizeof(end);
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&end), &length) == 0)
        ends.localPort = describe(end).second;
    return ends;
}

} // namespace connector::http::engine
