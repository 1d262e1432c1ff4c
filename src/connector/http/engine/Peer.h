#pragma once

#include <chrono>
#include <memory>

namespace connector::http::engine {

/// What a loop knows of each of its clients. All calls on the loop's thread.
class Peer : public std::enable_shared_from_this<Peer>
{
public:
    using Clock = std::chrono::steady_clock;

    virtual ~Peer() = default;
    Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Somebody has something for it; see Loop::wake.
    virtual void woken() {}
    /// See Loop::wakeLate.
    virtual void wokenLate() {}
    /// The server stops: closes now or soon.
    virtual void stop() = 0;
    /// Now; to be called any number of times.
    virtual void close() = 0;
    virtual bool isLate(Clock::time_point now) const noexcept = 0;
    /// What happens to a late one.
    virtual void giveUp() = 0;
};

} // namespace connector::http::engine
