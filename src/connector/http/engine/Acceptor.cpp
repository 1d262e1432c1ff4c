#include "connector/http/engine/Acceptor.h"

#include <boost/asio/post.hpp>

#include "connector/common/Log.h"

namespace connector::http::engine {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

/// Connections beyond the limit that may be told so at a time; more are dropped.
constexpr std::uint64_t kMaxTurnedAway = 64;
constexpr std::chrono::milliseconds kPauseAfterFailure{100};

std::string placeText(const ServerSettings& settings)
{
    const bool bracketed = settings.address.find(':') != std::string::npos;
    return (bracketed ? "[" + settings.address + "]" : settings.address) + ":" + std::to_string(settings.port);
}

} // namespace

Acceptor::Acceptor(std::vector<std::shared_ptr<Loop>> loops)
    : loops_(std::move(loops)), core_(loops_.front()->core()), acceptor_(loops_.front()->context()),
      pauseTimer_(loops_.front()->context())
{}

std::uint16_t Acceptor::listen()
{
    const ServerSettings& settings = core_.settings;
    error_code error;
    const auto address =
        asio::ip::make_address(settings.address == "localhost" ? "127.0.0.1" : settings.address, error);
    if (error)
        throw std::runtime_error("Cannot listen on " + placeText(settings) + ": not an IP address");

    const tcp::endpoint endpoint(address, settings.port);
    acceptor_.open(endpoint.protocol(), error);
    if (!error)
        acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error)
        acceptor_.bind(endpoint, error);
    if (!error)
        acceptor_.listen(settings.parameters->getMaxQueued(), error);
    if (error)
        throw std::runtime_error("Cannot listen on " + placeText(settings) + ": " + error.message());
    return acceptor_.local_endpoint().port();
}

void Acceptor::stop()
{
    error_code ignored;
    acceptor_.close(ignored);
    pauseTimer_.cancel();
}

void Acceptor::acceptNext()
{
    const auto loop = loops_[turn_++ % loops_.size()];
    acceptor_.async_accept(loop->context(),
                           [self = shared_from_this(), loop](const error_code& error, tcp::socket socket) {
                               if (!self->acceptor_.is_open())
                                   return;
                               if (!error)
                                   self->accepted(std::move(socket), *loop);
                               else if (error != asio::error::connection_aborted)
                                   return self->pause();
                               self->acceptNext();
                           });
}

void Acceptor::accepted(tcp::socket socket, Loop& loop)
{
    if (pausing_) {
        pausing_ = false;
        common::log("connector.http", common::LogLevel::warning, "Connections are accepted again.");
    }
    ++core_.accepted;
    const auto open = core_.connections.load();
    const bool welcome = open < core_.maxConnections;
    if (!welcome && ++core_.turnedAway > 0 && open >= core_.maxConnections + kMaxTurnedAway)
        return;
    // Counted from here on, so that a burst cannot slip past the limit on its way to the loops.
    auto counted = std::make_unique<ConnectionCount>(loop.sharedCore());
    asio::post(loop.context(), [target = loop.weak_from_this(), socket = std::move(socket), welcome,
                                counted = std::move(counted)]() mutable {
        if (const auto alive = target.lock())
            alive->adopt(std::move(socket), welcome, std::move(counted));
    });
}

/// No descriptors or memory left: the client waits in the backlog until there are some.
void Acceptor::pause()
{
    if (!pausing_)
        common::log("connector.http", common::LogLevel::error, "Connections cannot be accepted for now.");
    pausing_ = true;
    pauseTimer_.expires_after(kPauseAfterFailure);
    pauseTimer_.async_wait([self = shared_from_this()](const error_code& error) {
        if (!error && self->acceptor_.is_open())
            self->acceptNext();
    });
}

} // namespace connector::http::engine
