#include "connector/common/WorkerPool.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "connector/common/Log.h"
#include "connector/common/Thread.h"

namespace connector::common {

namespace {

constexpr const char* kPoolSource = "connector.common.workers";

void runJob(std::function<void()> job) noexcept
{
    std::string failure;
    try {
        job();
        job = nullptr;
        return;
    } catch (const std::exception& error) {
        failure = std::string("A job failed: ") + error.what();
    } catch (...) {
        failure = "A job failed with something that is no std::exception";
    }
    log(kPoolSource, LogLevel::error, failure);
}

} // namespace

class WorkerPool::Impl
{
public:
    Impl(std::size_t threads, std::size_t capacity) : shared_(std::make_shared<Shared>()), threads_(threads)
    {
        if (threads == 0)
            throw std::invalid_argument("A worker pool needs at least one thread.");
        shared_->capacity = capacity;
    }

    ~Impl()
    {
        std::deque<std::function<void()>> dropped;
        std::vector<std::thread> workers;
        {
            std::lock_guard lock(shared_->mutex);
            shared_->stopping = true;
            dropped.swap(shared_->waiting);
            workers.swap(workers_);
            shared_->wake.notify_all();
        }
        dropped.clear();
        for (auto& worker : workers)
            joinThread(std::move(worker));
    }

    bool post(std::function<void()>&& job)
    {
        std::lock_guard lock(shared_->mutex);
        auto& waiting = shared_->waiting;
        if (shared_->stopping)
            return false;
        if (waiting.size() >= shared_->idle && workers_.size() < threads_ && !addWorker())
            return false;
        if (waiting.size() >= shared_->idle + shared_->capacity)
            return false;
        waiting.push_back(std::move(job));
        shared_->wake.notify_one();
        return true;
    }

private:
    /// What the workers see. They keep it alive themselves: the pool may die in one of its own jobs.
    struct Shared
    {
        void run()
        {
            std::unique_lock lock(mutex);
            for (;;) {
                wake.wait(lock, [this] { return stopping || !waiting.empty(); });
                if (stopping)
                    return;
                auto job = std::move(waiting.front());
                waiting.pop_front();
                --idle;
                lock.unlock();
                runJob(std::move(job));
                lock.lock();
                ++idle;
            }
        }

        std::mutex mutex;
        std::condition_variable wake;
        std::deque<std::function<void()>> waiting;
        std::size_t capacity = 0;
        std::size_t idle = 0; ///< workers without a job, those about to take one included
        bool stopping = false;
    };

    /// False when there is no worker at all and none can be started.
    bool addWorker()
    {
        try {
            workers_.reserve(workers_.size() + 1);
            workers_.push_back(startThread("connector-work", [shared = shared_] { shared->run(); }));
            ++shared_->idle;
        } catch (const std::system_error& error) {
            log(kPoolSource, LogLevel::error, std::string("Cannot start a worker: ") + error.what());
        }
        return !workers_.empty();
    }

    std::shared_ptr<Shared> shared_;
    std::vector<std::thread> workers_;
    const std::size_t threads_;
};

WorkerPool::WorkerPool(std::size_t threads, std::size_t capacity) : impl_(std::make_unique<Impl>(threads, capacity)) {}

WorkerPool::~WorkerPool() = default;

bool WorkerPool::post(std::function<void()> job)
{
    if (!job)
        throw std::invalid_argument("A job is needed.");
    return impl_->post(std::move(job));
}

} // namespace connector::common
