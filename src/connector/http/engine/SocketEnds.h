#pragma once

#include <cstdint>
#include <string>

namespace connector::http::engine {

/// Who is at the two ends of a connected socket.
struct SocketEnds
{
    std::string peerAddress;     ///< numeric, without port; "unix" for a Unix-domain socket; "" when it is gone
    std::uint16_t localPort = 0; ///< 0 without ports
};

SocketEnds endsOf(int socket);

} // namespace connector::http::engine
