#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <string>

#include "connector/common/FileDescriptor.h"

namespace connector::http::client {

/// Tells the thread that works on a transfer to give up. Fires once. Threads: any.
class Interruption
{
public:
    void raise() noexcept;
    bool raised() const noexcept { return raised_.load(std::memory_order_acquire); }
    /// Becomes readable when this is raised. Throws std::system_error.
    int descriptor();

private:
    std::atomic<bool> raised_{false};
    std::mutex mutex_;
    common::FileDescriptor event_; ///< made when the transfer begins to wait for something
};

/// All waiting of one transfer goes through here, so that every wait ends by itself: with an interruption, after the
/// time one step may take, or at the end of the time for all. Sockets are non-blocking for that, and nobody needs to
/// close them from another thread. Threads: the one that works on the transfer.
class Waiter
{
public:
    using Clock = std::chrono::steady_clock;

    /// `subject` is what the whole is about in error texts: the URL asked.
    Waiter(Interruption& interruption, std::chrono::milliseconds step, std::chrono::milliseconds total,
           Clock::time_point start, std::string subject);

    /// "connecting to host:80": what a step that takes too long was about.
    void doing(std::string activity) { activity_ = std::move(activity); }

    /// Throws when the transfer was interrupted or its time is over.
    void check();
    /// Waits until one of `events` (as poll takes them) happens on `descriptor`. Throws as `check` and when the step
    /// takes too long.
    void await(int descriptor, short events);
    /// As `await`, with its own limit; false when that is reached.
    bool awaitFor(int descriptor, short events, std::chrono::milliseconds limit);

    /// Throws std::runtime_error. The first failure is kept: streams between here and who cares swallow exceptions.
    [[noreturn]] void fail(const std::string& text);
    [[noreturn]] void timedOut();
    void rethrowFailure() const;

    std::chrono::milliseconds step() const noexcept { return step_; }

private:
    [[noreturn]] void keep(std::exception_ptr failure);

    Interruption& interruption_;
    const std::chrono::milliseconds step_;
    const std::chrono::milliseconds total_;
    const Clock::time_point end_;
    const std::string subject_;
    std::string activity_;
    std::exception_ptr failure_;
};

} // namespace connector::http::client
