#include "platform/rqe/LocalRQE.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/rqe/LookingThread.h"

namespace rqe {
namespace {

/// An event counter used as a flag: readable while set.
class WakeFlag
{
public:
    WakeFlag() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
        if (fd_ < 0)
            throw std::system_error(errno, std::generic_category(), "The engine cannot make its event descriptor");
    }
    ~WakeFlag() { ::close(fd_); }
    WakeFlag(const WakeFlag&) = delete;
    WakeFlag& operator=(const WakeFlag&) = delete;

    int fd() const noexcept { return fd_; }
    // Neither can fail but by EAGAIN, which means that the flag already stands as wanted.
    void set() noexcept { [[maybe_unused]] int failed = ::eventfd_write(fd_, 1); }
    void clear() noexcept
    {
        eventfd_t count = 0;
        [[maybe_unused]] int failed = ::eventfd_read(fd_, &count);
    }

private:
    int fd_;
};

} // namespace

class LocalRQE::Impl
{
public:
    Impl(LanguageHost& host, std::size_t capacity) : host_(host), capacity_(capacity), looks_(host) {}

    TaskId post(std::unique_ptr<Task> task);
    TaskId look(std::unique_ptr<Task> task);
    bool cancel(TaskId id);
    /// Breaks what runs if `wanted` says so of the running task's number (0: the host's own script).
    template <class Wanted>
    bool interruptIf(Wanted wanted);
    bool interruptClient(const std::string& client);
    std::string aboutRunning() const;
    bool runOne();
    void enterForeground();
    void leaveForeground() noexcept;
    void close(const std::string& reason);
    void endLooks() { looks_.end(); }

    State state() const;
    std::size_t queued() const;
    void addListener(const std::shared_ptr<EngineListener>& listener);
    void removeListener(const EngineListener* listener);
    template <class Call>
    void notify(Call call) noexcept;

    bool onInterpreterThread() const { return std::this_thread::get_id() == interpreterThread_; }
    int wakeFd() const noexcept { return wake_.fd(); }

private:
    struct Entry
    {
        TaskId id = 0;
        std::unique_ptr<Task> task;
        bool isLook = false; ///< these stand before all others in the queue
    };

    // With mutex_ held:
    void requireOpen(const std::unique_ptr<Task>& task) const;
    TaskId enqueue(std::unique_ptr<Task> task, bool isLook);
    bool isFreeForLooks() const;
    std::deque<Entry> takeOut(const std::string& client);

    Entry takeNext();
    /// From here on no interrupt reaches what ran; true when one was sent.
    bool endRunning();

    LanguageHost& host_;
    const std::size_t capacity_;
    const std::thread::id interpreterThread_ = std::this_thread::get_id();
    WakeFlag wake_; ///< set exactly while queue_ is not empty

    mutable std::mutex mutex_;
    std::deque<Entry> queue_;
    LookingThread looks_; ///< its own lock is taken after mutex_
    TaskId lastId_ = 0;
    TaskId running_ = 0; ///< 0: no task
    const Task* runningTask_ = nullptr;
    bool runningLooks_ = false;
    unsigned foreground_ = 0;
    bool breakSent_ = false;
    bool closed_ = false;
    std::string closeReason_;

    mutable std::mutex listenersMutex_;
    std::vector<std::weak_ptr<EngineListener>> listeners_;
};

TaskId LocalRQE::Impl::post(std::unique_ptr<Task> task)
{
    std::lock_guard lock(mutex_);
    requireOpen(task);
    return enqueue(std::move(task), false);
}

TaskId LocalRQE::Impl::look(std::unique_ptr<Task> task)
{
    std::lock_guard lock(mutex_);
    requireOpen(task);
    if (isFreeForLooks())
        return enqueue(std::move(task), true);
    looks_.add(lastId_ + 1, task, false);
    return ++lastId_;
}

void LocalRQE::Impl::requireOpen(const std::unique_ptr<Task>& task) const
{
    if (!task)
        throw std::invalid_argument("No task was posted: the pointer is null.");
    if (closed_)
        throw EngineError(EngineError::Reason::closed, closeReason_);
}

/// Nothing but looks runs or waits, so that another one's turn comes soon.
bool LocalRQE::Impl::isFreeForLooks() const
{
    return foreground_ == 0 && (running_ == 0 || runningLooks_) && (queue_.empty() || queue_.back().isLook);
}

TaskId LocalRQE::Impl::enqueue(std::unique_ptr<Task> task, bool isLook)
{
    if (queue_.size() >= capacity_)
        throw EngineError(EngineError::Reason::queueFull,
                          "The interpreter's queue is full: " + std::to_string(queue_.size()) + " tasks wait.");
    queue_.push_back({lastId_ + 1, std::move(task), isLook});
    if (queue_.size() == 1)
        wake_.set();
    return ++lastId_;
}

bool LocalRQE::Impl::cancel(TaskId id)
{
    std::unique_ptr<Task> task;
    {
        std::lock_guard lock(mutex_);
        // Numbers grow along the queue.
        auto found = std::lower_bound(queue_.begin(), queue_.end(), id,
                                      [](const Entry& queued, TaskId wanted) { return queued.id < wanted; });
        if (found != queue_.end() && found->id == id) {
            task = std::move(found->task);
            queue_.erase(found);
            if (queue_.empty())
                wake_.clear();
        } else {
            task = looks_.remove(id);
        }
    }
    if (!task)
        return false;
    task->abandon(std::make_exception_ptr(
        EngineError(EngineError::Reason::cancelled, "The task was cancelled before it began.")));
    return true;
}

template <class Wanted>
bool LocalRQE::Impl::interruptIf(Wanted wanted)
{
    // Sent under the lock: endRunning cannot come between the check and the break.
    std::lock_guard lock(mutex_);
    bool something = running_ != 0 || foreground_ != 0;
    if (!something || !wanted(running_))
        return false;
    breakSent_ = true;
    host_.breakRunning();
    return true;
}

bool LocalRQE::Impl::interruptClient(const std::string& client)
{
    std::deque<Entry> taken;
    {
        std::lock_guard lock(mutex_);
        if (runningTask_ && runningTask_->client() == client) {
            breakSent_ = true;
            host_.breakRunning();
            return true;
        }
        // What would begin at once anyway is left to be interrupted then.
        if (running_ != 0 || foreground_ != 0)
            taken = takeOut(client);
    }
    for (Entry& entry : taken)
        entry.task->abandon(std::make_exception_ptr(
            EngineError(EngineError::Reason::cancelled, "The task was interrupted before it began.")));
    return !taken.empty();
}

std::deque<LocalRQE::Impl::Entry> LocalRQE::Impl::takeOut(const std::string& client)
{
    std::deque<Entry> taken;
    std::deque<Entry> left;
    for (Entry& entry : queue_)
        (!entry.isLook && entry.task->client() == client ? taken : left).push_back(std::move(entry));
    queue_.swap(left);
    if (queue_.empty())
        wake_.clear();
    return taken;
}

std::string LocalRQE::Impl::aboutRunning() const
{
    std::lock_guard lock(mutex_);
    return runningTask_ ? runningTask_->about() : std::string();
}

LocalRQE::Impl::Entry LocalRQE::Impl::takeNext()
{
    std::lock_guard lock(mutex_);
    if (running_ != 0)
        throw std::logic_error("A task cannot run inside task " + std::to_string(running_) + ".");
    Entry next;
    if (queue_.empty())
        return next;
    next = std::move(queue_.front());
    queue_.pop_front();
    if (queue_.empty())
        wake_.clear();
    running_ = next.id;
    runningTask_ = next.task.get();
    runningLooks_ = next.isLook;
    return next;
}

bool LocalRQE::Impl::endRunning()
{
    std::lock_guard lock(mutex_);
    running_ = 0;
    runningTask_ = nullptr;
    return std::exchange(breakSent_, false);
}

bool LocalRQE::Impl::runOne()
{
    if (!onInterpreterThread())
        throw std::logic_error("Tasks run on the interpreter thread only.");
    Entry entry = takeNext();
    if (!entry.task)
        return false;

    notify([](EngineListener& listener) { listener.workBegins(); });
    std::exception_ptr failure = std::make_exception_ptr(std::logic_error("The host did not run the task."));
    try {
        host_.withInterpreter([&](Interpreter& interpreter) {
            try {
                entry.task->run(interpreter);
                failure = nullptr;
            } catch (...) {
                failure = std::current_exception();
            }
            if (endRunning())
                host_.discardBreak();
        });
    } catch (...) {
        // The host could not lend its interpreter, or not take it back; the latter is no failure of the task.
        if (failure)
            failure = std::current_exception();
    }
    endRunning();

    if (failure)
        entry.task->abandon(failure);
    else
        entry.task->finish();
    entry.task.reset();
    notify([](EngineListener& listener) { listener.variablesMayHaveChanged(); });
    return true;
}

void LocalRQE::Impl::enterForeground()
{
    std::deque<Entry> stranded;
    std::exception_ptr failure;
    {
        std::lock_guard lock(mutex_);
        ++foreground_;
        // Looks that came just before must not wait for the end of what begins.
        try {
            for (; !queue_.empty() && queue_.front().isLook; queue_.pop_front())
                looks_.add(queue_.front().id, queue_.front().task, true);
        } catch (const std::exception&) {
            failure = std::current_exception();
            for (; !queue_.empty() && queue_.front().isLook; queue_.pop_front())
                stranded.push_back(std::move(queue_.front()));
        }
        if (queue_.empty())
            wake_.clear();
    }
    for (Entry& entry : stranded)
        entry.task->abandon(failure);
    notify([](EngineListener& listener) { listener.workBegins(); });
}

void LocalRQE::Impl::leaveForeground() noexcept
{
    bool late = false;
    {
        std::lock_guard lock(mutex_);
        if (--foreground_ == 0 && running_ == 0)
            late = std::exchange(breakSent_, false);
    }
    try {
        if (late)
            host_.withInterpreter([this](Interpreter&) { host_.discardBreak(); });
    } catch (...) {
        // The language is going down: nothing is left that the interrupt could hit.
    }
    notify([](EngineListener& listener) { listener.variablesMayHaveChanged(); });
}

void LocalRQE::Impl::close(const std::string& reason)
{
    std::deque<Entry> waiting;
    bool insideTask = false;
    {
        std::lock_guard lock(mutex_);
        if (closed_)
            return;
        closed_ = true;
        closeReason_ = reason;
        insideTask = running_ != 0;
        waiting.swap(queue_);
        wake_.clear();
    }
    auto error = std::make_exception_ptr(EngineError(EngineError::Reason::closed, reason));
    looks_.close(error);
    for (Entry& entry : waiting) {
        entry.task->abandon(error);
        entry.task.reset();
    }
    // The thread may need the language's lock for its end, which a task has.
    if (!insideTask)
        looks_.end();
}

RQE::State LocalRQE::Impl::state() const
{
    std::lock_guard lock(mutex_);
    if (closed_)
        return State::closed;
    return running_ != 0 || foreground_ != 0 ? State::busy : State::idle;
}

std::size_t LocalRQE::Impl::queued() const
{
    std::lock_guard lock(mutex_);
    return queue_.size();
}

void LocalRQE::Impl::addListener(const std::shared_ptr<EngineListener>& listener)
{
    std::lock_guard lock(listenersMutex_);
    std::erase_if(listeners_, [](const auto& known) { return known.expired(); });
    listeners_.push_back(listener);
}

void LocalRQE::Impl::removeListener(const EngineListener* listener)
{
    // Kept beyond the lock: what lock() returns may be the last owner of a listener.
    std::vector<std::shared_ptr<EngineListener>> alive;
    std::lock_guard lock(listenersMutex_);
    std::erase_if(listeners_, [&](const auto& known) {
        alive.push_back(known.lock());
        return !alive.back() || alive.back().get() == listener;
    });
}

template <class Call>
void LocalRQE::Impl::notify(Call call) noexcept
try {
    std::vector<std::shared_ptr<EngineListener>> alive;
    {
        std::lock_guard lock(listenersMutex_);
        for (const auto& known : listeners_)
            if (auto listener = known.lock())
                alive.push_back(std::move(listener));
    }
    for (const auto& listener : alive) {
        try {
            call(*listener);
        } catch (...) {
            // One listener's failure is no other's business, and the engine has nobody to tell.
        }
    }
} catch (const std::bad_alloc&) {
    // Notifications are hints; the next one will come.
}

LocalRQE::LocalRQE(LanguageHost& host, std::size_t capacity) : impl_(std::make_unique<Impl>(host, capacity)) {}

LocalRQE::~LocalRQE()
{
    close("The interpreter has ended.");
    impl_->endLooks();
}

TaskId LocalRQE::post(std::unique_ptr<Task> task) { return impl_->post(std::move(task)); }

TaskId LocalRQE::look(std::unique_ptr<Task> task) { return impl_->look(std::move(task)); }

bool LocalRQE::cancel(TaskId task) { return impl_->cancel(task); }

bool LocalRQE::interrupt()
{
    return impl_->interruptIf([](TaskId) { return true; });
}

bool LocalRQE::interrupt(TaskId task)
{
    return impl_->interruptIf([task](TaskId running) { return task != 0 && running == task; });
}

bool LocalRQE::interruptClient(const std::string& client) { return impl_->interruptClient(client); }

std::string LocalRQE::aboutRunning() const { return impl_->aboutRunning(); }

RQE::State LocalRQE::state() const { return impl_->state(); }

std::size_t LocalRQE::queued() const { return impl_->queued(); }

bool LocalRQE::onInterpreterThread() const { return impl_->onInterpreterThread(); }

void LocalRQE::addListener(const std::shared_ptr<EngineListener>& listener) { impl_->addListener(listener); }

void LocalRQE::removeListener(const EngineListener* listener) { impl_->removeListener(listener); }

bool LocalRQE::runOne() { return impl_->runOne(); }

int LocalRQE::wakeFd() const noexcept { return impl_->wakeFd(); }

void LocalRQE::notifyFolderChanged(const std::string& folder)
{
    impl_->notify([&](EngineListener& listener) { listener.folderChanged(folder); });
}

void LocalRQE::notifyPrompt(bool waiting)
{
    impl_->notify([&](EngineListener& listener) { listener.promptChanged(waiting); });
}

void LocalRQE::close(const std::string& reason) { impl_->close(reason); }

LocalRQE::ForegroundScope::ForegroundScope(LocalRQE& engine) : engine_(engine) { engine_.impl_->enterForeground(); }

LocalRQE::ForegroundScope::~ForegroundScope() { engine_.impl_->leaveForeground(); }

} // namespace rqe
