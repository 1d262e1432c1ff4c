#include "connector/http/engine/Loop.h"

#include "connector/common/Log.h"
#include "connector/http/engine/Connection.h"

namespace connector::http::engine {

namespace asio = boost::asio;

namespace {

/// Often enough that no time limit is overrun by more than a quarter, and never more than by a second.
std::chrono::milliseconds sweepIntervalOf(const ServerCore& core)
{
    const auto shortest = std::min({core.settings.headTimeout, core.settings.bodyTimeout, core.settings.bodyRateGrace,
                                    core.settings.lingerTimeout, core.idleTimeout, core.writeTimeout});
    return std::clamp(shortest / 4, std::chrono::milliseconds(5), std::chrono::milliseconds(1'000));
}

} // namespace

Loop::Loop(std::shared_ptr<ServerCore> core)
    : core_(std::move(core)), work_(asio::make_work_guard(context_)), sweepTimer_(context_), stopTimer_(context_),
      sweepInterval_(sweepIntervalOf(*core_))
{}

Loop::~Loop() = default;

void Loop::run()
{
    sweepLater();
    for (;;) {
        try {
            context_.run();
            return;
        } catch (const std::exception& error) {
            common::log("connector.http", common::LogLevel::error,
                        std::string("A connection's work failed: ") + error.what());
        }
    }
}

void Loop::adopt(asio::ip::tcp::socket socket, bool welcome, std::unique_ptr<ConnectionCount> count)
{
    if (stopping_)
        return;
    auto connection = std::make_shared<Connection>(std::move(socket), *this, std::move(count));
    connections_.emplace(connection.get(), connection);
    if (welcome)
        connection->start();
    else
        connection->turnAway();
}

void Loop::remove(Connection& connection)
{
    connections_.erase(&connection);
    if (stopping_ && connections_.empty())
        stopTimer_.cancel();
}

void Loop::stop()
{
    if (stopping_)
        return;
    stopping_ = true;
    sweepTimer_.cancel();

    std::vector<std::shared_ptr<Connection>> open;
    open.reserve(connections_.size());
    for (const auto& [key, connection] : connections_)
        open.push_back(connection);
    for (const auto& connection : open)
        connection->stop();

    if (!connections_.empty()) {
        stopTimer_.expires_after(core_->settings.stopTimeout);
        stopTimer_.async_wait([this](const boost::system::error_code& error) {
            if (error)
                return;
            while (!connections_.empty()) {
                const auto connection = connections_.begin()->second;
                connection->close();
            }
        });
    }
    work_.reset();
}

void Loop::sweepLater()
{
    sweepTimer_.expires_after(sweepInterval_);
    sweepTimer_.async_wait([this](const boost::system::error_code& error) {
        if (!error && !stopping_) {
            sweep();
            sweepLater();
        }
    });
}

void Loop::sweep()
{
    const auto now = std::chrono::steady_clock::now();
    std::vector<std::shared_ptr<Connection>> late;
    for (const auto& [key, connection] : connections_) {
        if (connection->isLate(now))
            late.push_back(connection);
    }
    for (const auto& connection : late)
        connection->giveUp();
}

} // namespace connector::http::engine
