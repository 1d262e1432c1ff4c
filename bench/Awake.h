#pragma once

#include <chrono>
#include <thread>

/// Keeps a thread that waits in poll or epoll_wait from sleeping for a while after it had something to do, as the host
/// keeps its own threads.
class Awake
{
public:
    using Clock = std::chrono::steady_clock;

    /// What the host's threads do after a task, and after a client asked again.
    static constexpr std::chrono::microseconds kInterpreter{100};
    static constexpr std::chrono::microseconds kNetwork{40};

    void stay(std::chrono::microseconds time) { until_ = Clock::now() + time; }

    /// For the next wait.
    int timeout() const { return Clock::now() < until_ ? 0 : -1; }
    /// That wait found nothing.
    void giveWay() const { std::this_thread::yield(); }

private:
    Clock::time_point until_;
};
