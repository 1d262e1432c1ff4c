#pragma once

#include <memory>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "connector/http/engine/Loop.h"

namespace connector::http::engine {

/// Listens on one port and deals connections out to the loops in turn. Works on the thread of the first loop.
class Acceptor final : public std::enable_shared_from_this<Acceptor>
{
public:
    explicit Acceptor(std::vector<std::shared_ptr<Loop>> loops);

    /// Before the loops run. Throws std::runtime_error that names address and port. Answers the port.
    std::uint16_t listen();
    void start() { acceptNext(); }
    /// On the first loop's thread.
    void stop();

private:
    void acceptNext();
    void accepted(boost::asio::ip::tcp::socket socket, Loop& loop);
    void pause();

    std::vector<std::shared_ptr<Loop>> loops_;
    ServerCore& core_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer pauseTimer_;
    std::size_t turn_ = 0;
    bool pausing_ = false;
};

} // namespace connector::http::engine
