#include "connector/common/Thread.h"

#include <csignal>
#include <mutex>
#include <utility>
#include <vector>

#include <pthread.h>

namespace connector::common {

namespace {

/// Threads that ended, or are about to, in a place where they could not be joined.
class EndedThreads
{
public:
    ~EndedThreads() { join(); }

    void keep(std::thread thread)
    {
        std::lock_guard lock(mutex_);
        threads_.push_back(std::move(thread));
    }

    void join()
    {
        std::vector<std::thread> ended;
        {
            std::lock_guard lock(mutex_);
            for (auto& thread : threads_) {
                if (thread.get_id() != std::this_thread::get_id())
                    ended.push_back(std::move(thread));
            }
            std::erase_if(threads_, [](const std::thread& thread) { return !thread.joinable(); });
        }
        for (auto& thread : ended)
            thread.join();
    }

private:
    std::mutex mutex_;
    std::vector<std::thread> threads_;
};

EndedThreads& endedThreads()
{
    static EndedThreads threads;
    return threads;
}

/// Blocks what others may send to the process, for as long as it lives. A new thread inherits the mask.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        // A thread that faults with these blocked dies without the host's crash report.
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

} // namespace

std::thread startThread(const std::string& name, std::function<void()> body)
{
    endedThreads().join();
    const SignalsBlocked blocked;
    return std::thread([shortName = name.substr(0, 15), body = std::move(body)] {
        pthread_setname_np(pthread_self(), shortName.c_str());
        body();
    });
}

void joinThread(std::thread thread)
{
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id())
        endedThreads().keep(std::move(thread));
    else
        thread.join();
}

} // namespace connector::common
