#include "platform/rqe/LookingThread.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <deque>
#include <exception>
#include <mutex>
#include <semaphore>
#include <system_error>
#include <utility>

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

#include "platform/rqe/LocalRQE.h"

namespace rqe {
namespace {

constexpr std::chrono::milliseconds kPatience{1'000};
constexpr std::chrono::milliseconds kSecondPatience{200};

/// The system's own thread, since one of the library's must be joined even in a forked child that does not have it.
pthread_t startWithoutSignals(void* (*run)(void*), void* argument)
{
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    const int error = ::pthread_create(&thread, nullptr, run, argument);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "The looking thread cannot be made");
    ::pthread_setname_np(thread, "looks");
    return thread;
}

} // namespace

struct LookingThread::State
{
    struct Entry
    {
        TaskId id = 0;
        std::unique_ptr<Task> task;
    };

    explicit State(LanguageHost& languageHost) : host(languageHost) {}

    static void* main(void* argument);
    void run();
    void lookOnce();
    Entry takeNext();
    bool isClosed() const;

    LanguageHost& host;
    // Semaphores, since a condition somebody waits for cannot be destroyed in a forked child.
    std::counting_semaphore<> wake{0};
    std::binary_semaphore ended{0};

    mutable std::mutex mutex;
    std::deque<Entry> waiting;
    bool closed = false;
    pthread_t thread{};
    pid_t process = 0; ///< that has the thread; 0: there is none
    bool wasAwaited = false;
};

void* LookingThread::State::main(void* argument)
{
    const std::unique_ptr<std::shared_ptr<State>> state(static_cast<std::shared_ptr<State>*>(argument));
    (*state)->run();
    (*state)->ended.release();
    return nullptr;
}

void LookingThread::State::run()
{
    while (!isClosed()) {
        wake.acquire();
        bool any = false;
        {
            std::lock_guard lock(mutex);
            any = !waiting.empty();
        }
        if (any)
            lookOnce();
    }
}

void LookingThread::State::lookOnce()
{
    Entry entry;
    std::exception_ptr failure;
    try {
        host.withLook([&](Interpreter& interpreter) {
            entry = takeNext();
            if (entry.task)
                entry.task->run(interpreter);
        });
    } catch (abi::__forced_unwind&) {
        throw; // the language has ended and takes the thread with it
    } catch (...) {
        failure = std::current_exception();
        if (!entry.task)
            entry = takeNext(); // the host lent nothing
    }
    if (!entry.task)
        return;
    if (failure)
        entry.task->abandon(failure);
    else
        entry.task->finish();
}

LookingThread::State::Entry LookingThread::State::takeNext()
{
    std::lock_guard lock(mutex);
    Entry next;
    if (!waiting.empty()) {
        next = std::move(waiting.front());
        waiting.pop_front();
    }
    return next;
}

bool LookingThread::State::isClosed() const
{
    std::lock_guard lock(mutex);
    return closed;
}

LookingThread::LookingThread(LanguageHost& host) : state_(std::make_shared<State>(host)) {}

LookingThread::~LookingThread() = default;

void LookingThread::startThread()
{
    auto own = std::make_unique<std::shared_ptr<State>>(state_);
    state_->thread = startWithoutSignals(&State::main, own.get());
    own.release();
    state_->process = ::getpid();
}

void LookingThread::add(TaskId id, std::unique_ptr<Task>& task, bool always)
{
    std::lock_guard lock(state_->mutex);
    if (!always && state_->waiting.size() >= kMaxWaiting)
        throw EngineError(EngineError::Reason::queueFull,
                          "The interpreter is busy, and " + std::to_string(kMaxWaiting) + " looks wait already.");
    if (state_->process == 0)
        startThread();
    state_->waiting.push_back({id, std::move(task)});
    state_->wake.release();
}

std::unique_ptr<Task> LookingThread::remove(TaskId id)
{
    std::lock_guard lock(state_->mutex);
    auto& waiting = state_->waiting;
    for (auto entry = waiting.begin(); entry != waiting.end(); ++entry) {
        if (entry->id == id) {
            auto task = std::move(entry->task);
            waiting.erase(entry);
            return task;
        }
    }
    return nullptr;
}

void LookingThread::close(const std::exception_ptr& reason)
{
    std::deque<State::Entry> abandoned;
    {
        std::lock_guard lock(state_->mutex);
        state_->closed = true;
        abandoned.swap(state_->waiting);
    }
    state_->wake.release();
    for (auto& entry : abandoned) {
        entry.task->abandon(reason);
        entry.task.reset();
    }
}

void LookingThread::end()
{
    std::chrono::milliseconds patience{0};
    {
        std::lock_guard lock(state_->mutex);
        if (state_->process != ::getpid())
            return;
        patience = std::exchange(state_->wasAwaited, true) ? kSecondPatience : kPatience;
    }
    if (!state_->ended.try_acquire_for(patience))
        return;
    ::pthread_join(state_->thread, nullptr);
    std::lock_guard lock(state_->mutex);
    state_->process = 0;
}

} // namespace rqe
