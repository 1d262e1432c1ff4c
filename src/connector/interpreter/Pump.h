#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "connector/Export.h"

namespace connector::interpreter::v1 {

/// One thread that passes on what was printed, so that the interpreter does not wait for clients. Threads: any.
class CONNECTOR_API Pump
{
public:
    using Clock = std::chrono::steady_clock;

    class Job
    {
    public:
        virtual ~Job() = default;
        /// Does what is due; when there is more to do, max() for nothing. On the pump's thread.
        virtual Clock::time_point pump() = 0;
    };

    Pump() = default;
    /// After `stop`.
    ~Pump() = default;
    Pump(const Pump&) = delete;
    Pump& operator=(const Pump&) = delete;

    /// Has the job's turn come as soon as possible. The first one starts the thread.
    void wake(std::shared_ptr<Job> job);
    /// Waits for the job that is at work; the others are dropped, as are those that come from now on. Not on the pump's
    /// thread, nor with a lock held that a job takes.
    void stop();

private:
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::shared_ptr<Job>, Clock::time_point> due_;
    bool stopped_ = false;
    std::thread thread_;
};

} // namespace connector::interpreter::v1
