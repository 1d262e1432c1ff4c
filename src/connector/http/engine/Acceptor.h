#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include "connector/http/engine/Loop.h"

namespace connector::http::engine {

/// Listens on one endpoint and gives each connection to the first loop that is not busy. Works on the thread of the
/// first loop.
class Acceptor final : public std::enable_shared_from_this<Acceptor>
{
public:
    using Protocol = boost::asio::generic::stream_protocol;

    explicit Acceptor(std::vector<std::shared_ptr<Loop>> loops);
    /// Removes the file of a Unix-domain socket.
    ~Acceptor();
    Acceptor(const Acceptor&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;

    /// Before the loops run. Throws std::runtime_error that names address and port. Answers the port.
    std::uint16_t listen(const std::string& address, std::uint16_t port);
    /// The same for a Unix-domain socket, which only this user can reach. A file that a process left behind is
    /// replaced.
    void listenUnix(const std::string& path);
    void start() { acceptLater(); }
    /// On the first loop's thread.
    void stop();

private:
    void bind(const Protocol::endpoint& endpoint, const std::string& place);
    void acceptLater();
    void acceptSome();
    void accepted(int socket);
    void pause();

    std::vector<std::shared_ptr<Loop>> loops_;
    ServerCore& core_;
    boost::asio::basic_socket_acceptor<Protocol> acceptor_;
    boost::asio::steady_timer pauseTimer_;
    int family_ = 0;
    std::string unixPath_;
    bool pausing_ = false;
};

/// Everything that a server's settings say to listen on; at "localhost" the same port of IPv4 and, where there is IPv6,
/// of IPv6. `port` is the port in use. Throws std::runtime_error as Acceptor does.
std::vector<std::shared_ptr<Acceptor>> listenAsSet(const std::vector<std::shared_ptr<Loop>>& loops,
                                                   std::uint16_t& port);

} // namespace connector::http::engine
