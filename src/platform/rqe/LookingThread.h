#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/rqe/RQE.h"

namespace rqe {

class LanguageHost;

/// Runs looks beside what runs on the interpreter thread: one after the other on one thread, which is made with the
/// first look and has all signals blocked. A look is taken only once the language's lock is there, so that it can be
/// cancelled for as long as it waits for it. Threads: any.
class LookingThread
{
public:
    static constexpr std::size_t kMaxWaiting = 100;

    explicit LookingThread(LanguageHost& host);
    /// Closed and ended before.
    ~LookingThread();
    LookingThread(const LookingThread&) = delete;
    LookingThread& operator=(const LookingThread&) = delete;

    /// Throws EngineError (queueFull) when too many wait, and std::system_error when there can be no thread; the task
    /// is then left to the caller. `always`: it was taken in before, and is not refused. Not after close.
    void add(TaskId id, std::unique_ptr<Task>& task, bool always);
    /// Null when the look has begun, ended or never was.
    std::unique_ptr<Task> remove(TaskId id);
    /// Abandons what waits. A look that has begun goes on.
    void close(const std::exception_ptr& reason);
    /// After close: waits for the thread's end, though not for long, and the second time even shorter. Code that keeps
    /// the language's lock keeps the thread as well, which then ends by itself or with the process. One thread, without
    /// the language's lock.
    void end();

private:
    struct State;

    void startThread();

    const std::shared_ptr<State> state_; ///< the thread's too
};

} // namespace rqe
