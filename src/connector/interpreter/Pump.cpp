#include "connector/interpreter/Pump.h"

#include <algorithm>

#include <csignal>
#include <pthread.h>

#include "connector/common/Log.h"

namespace connector::interpreter::v1 {

void Pump::stop()
{
    std::map<std::shared_ptr<Job>, Clock::time_point> dropped;
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        dropped.swap(due_);
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void Pump::wake(std::shared_ptr<Job> job)
{
    std::lock_guard lock(mutex_);
    if (stopped_)
        return;
    due_[std::move(job)] = Clock::time_point::min();
    if (thread_.joinable())
        return changed_.notify_all();
    // Signals belong to the interpreter's thread.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { run(); });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::pthread_setname_np(thread_.native_handle(), "eval-output");
}

void Pump::run()
{
    std::unique_lock lock(mutex_);
    while (!stopped_) {
        const auto first = std::min_element(
            due_.begin(), due_.end(), [](const auto& one, const auto& other) { return one.second < other.second; });
        if (first == due_.end()) {
            changed_.wait(lock);
            continue;
        }
        if (first->second > Clock::now()) {
            changed_.wait_until(lock, first->second);
            continue;
        }
        std::shared_ptr<Job> job = first->first;
        due_.erase(first);
        lock.unlock();
        auto next = Clock::time_point::max();
        try {
            next = job->pump();
        } catch (const std::exception& error) {
            common::log("connector.interpreter", common::LogLevel::error,
                        std::string("Output could not be passed on: ") + error.what());
        }
        lock.lock();
        // Somebody may have woken it meanwhile.
        if (next != Clock::time_point::max() && !stopped_)
            due_.emplace(job, next);
        lock.unlock();
        job.reset();
        lock.lock();
    }
}

} // namespace connector::interpreter::v1
