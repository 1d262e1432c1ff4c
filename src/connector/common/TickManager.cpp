#include "connector/common/TickManager.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "connector/common/Log.h"
#include "connector/common/Thread.h"

namespace connector::common {

using Clock = std::chrono::steady_clock;

class TickManager::Impl : public std::enable_shared_from_this<Impl>
{
public:
    /// 0 when stopped.
    std::uint64_t add(std::chrono::milliseconds interval, Callback callback)
    {
        std::lock_guard lock(mutex_);
        if (stopping_)
            return 0;
        if (!thread_.joinable())
            thread_ = startThread("connector-tick", [self = shared_from_this()] { self->run(); });
        const auto id = nextId_++;
        const auto due = Clock::now() + interval;
        entries_.emplace(id, Entry{interval, due, std::make_shared<Callback>(std::move(callback)), false});
        queue_.emplace(due, id);
        wake_.notify_one();
        return id;
    }

    void remove(std::uint64_t id)
    {
        std::shared_ptr<Callback> dropped;
        std::unique_lock lock(mutex_);
        if (const auto entry = entries_.find(id); entry != entries_.end()) {
            queue_.erase({entry->second.due, id});
            dropped = std::move(entry->second.callback);
            entries_.erase(entry);
        }
        if (runner_ != std::this_thread::get_id())
            returned_.wait(lock, [&] { return running_ != id; });
        lock.unlock();
    }

    void stop()
    {
        std::map<std::uint64_t, Entry> dropped;
        std::thread thread;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            dropped.swap(entries_);
            queue_.clear();
            thread = std::move(thread_);
            wake_.notify_all();
        }
        joinThread(std::move(thread));
    }

private:
    struct Entry
    {
        std::chrono::milliseconds interval;
        Clock::time_point due;
        std::shared_ptr<Callback> callback;
        bool failedBefore;
    };

    void run()
    {
        std::unique_lock lock(mutex_);
        runner_ = std::this_thread::get_id();
        while (!stopping_) {
            if (queue_.empty())
                wake_.wait(lock);
            else if (const auto due = queue_.begin()->first; Clock::now() < due)
                wake_.wait_until(lock, due);
            else
                runFirst(lock);
        }
    }

    void runFirst(std::unique_lock<std::mutex>& lock)
    {
        const auto id = queue_.extract(queue_.begin()).value().second;
        auto& entry = entries_.at(id);
        // A late call is not made up for by a burst of calls.
        entry.due += entry.interval;
        if (const auto now = Clock::now(); entry.due <= now)
            entry.due = now + entry.interval;
        queue_.emplace(entry.due, id);
        auto callback = entry.callback;
        running_ = id;
        lock.unlock();

        std::string failure;
        try {
            (*callback)();
        } catch (const std::exception& error) {
            failure = std::string("A callback failed: ") + error.what();
        } catch (...) {
            failure = "A callback failed with something that is no std::exception";
        }
        callback.reset();

        lock.lock();
        running_ = 0;
        returned_.notify_all();
        const auto found = entries_.find(id);
        if (!failure.empty() && found != entries_.end() && !std::exchange(found->second.failedBefore, true)) {
            lock.unlock();
            log("connector.common.tick", LogLevel::error, failure);
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable returned_;
    std::map<std::uint64_t, Entry> entries_;
    std::set<std::pair<Clock::time_point, std::uint64_t>> queue_;
    std::uint64_t nextId_ = 1;
    std::uint64_t running_ = 0; ///< the subscription whose callback is running
    std::thread::id runner_;
    std::thread thread_;
    bool stopping_ = false;
};

struct TickManager::Subscription::State
{
    std::weak_ptr<Impl> manager;
    std::uint64_t id;
};

TickManager::Subscription::Subscription(std::shared_ptr<State> state) : state_(std::move(state)) {}

TickManager::Subscription::Subscription(Subscription&& other) noexcept : state_(std::move(other.state_)) {}

TickManager::Subscription& TickManager::Subscription::operator=(Subscription&& other) noexcept
{
    if (this != &other) {
        reset();
        state_ = std::move(other.state_);
    }
    return *this;
}

TickManager::Subscription::~Subscription() { reset(); }

void TickManager::Subscription::reset() noexcept
{
    const auto state = std::move(state_);
    if (!state)
        return;
    if (const auto manager = state->manager.lock())
        manager->remove(state->id);
}

namespace {

struct Instance
{
    /// What the tick thread may use while this is destroyed has to be there first.
    Instance() { isLogged({}, LogLevel::error); }

    std::mutex mutex;
    std::shared_ptr<TickManager> manager;
};

Instance& theInstance()
{
    static Instance instance;
    return instance;
}

} // namespace

std::shared_ptr<TickManager> TickManager::instance()
{
    auto& instance = theInstance();
    std::lock_guard lock(instance.mutex);
    if (!instance.manager)
        instance.manager = std::make_shared<TickManager>();
    return instance.manager;
}

void TickManager::destructInstance()
{
    auto& instance = theInstance();
    std::shared_ptr<TickManager> ended;
    {
        std::lock_guard lock(instance.mutex);
        ended.swap(instance.manager);
    }
    if (ended)
        ended->impl_->stop();
}

TickManager::TickManager() : impl_(std::make_shared<Impl>()) {}

TickManager::~TickManager() { impl_->stop(); }

TickManager::Subscription TickManager::every(std::chrono::milliseconds interval, Callback callback)
{
    if (!callback)
        throw std::invalid_argument("A subscription needs a callback.");
    using namespace std::chrono_literals;
    // Longer intervals would leave the range of the clock.
    const auto bounded = std::clamp<std::chrono::milliseconds>(interval, 1ms, 24h * 365);
    const auto id = impl_->add(bounded, std::move(callback));
    if (id == 0)
        return {};
    return Subscription(std::make_shared<Subscription::State>(Subscription::State{impl_, id}));
}

} // namespace connector::common
