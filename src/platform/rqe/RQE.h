#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "platform/Export.h"
#include "platform/rqe/Interpreter.h"
#include "platform/rqe/ScriptError.h"

namespace rqe {

/// A piece of work for the interpreter thread, or, when it only looks, for the looking thread (RQE::look): what is said
/// of the one holds for the other. Exactly one of these happens to a posted task: `run` and then `finish`,
/// or `abandon`. Then it is deleted, on the thread of the last call.
class VENDRA_PLATFORM_API Task
{
public:
    virtual ~Task();
    /// On the interpreter thread, one task at a time, in the order of posting. Keeps its outcome for `finish`; an
    /// exception that leaves it is passed to `abandon` in place of `finish`.
    virtual void run(Interpreter& interpreter) = 0;
    /// On the interpreter thread after `run`, with the language's own lock released: the place to fulfil promises.
    virtual void finish() noexcept = 0;
    /// The task will not run (again): cancelled, engine closed, or `run` threw. Any thread, no engine lock held.
    virtual void abandon(std::exception_ptr reason) noexcept = 0;

    // Asked by any thread, with engine locks held, from posting to the end of `run`: they change nothing and are quick.

    /// Whose work it is, by a name that is the same for all work of one client; "" for nobody's.
    virtual const std::string& client() const noexcept;
    /// The same and what it does, for people at the terminal; "" when there is nothing to tell.
    virtual std::string about() const;
};

using TaskId = std::uint64_t;

/// What happens at the engine. Called on the interpreter thread, without engine locks; must not block. An exception is
/// dropped.
class VENDRA_PLATFORM_API EngineListener
{
public:
    virtual ~EngineListener();
    /// A task or a line of the terminal begins.
    virtual void workBegins() {}
    /// After a task or a line of the terminal may have changed variables.
    virtual void variablesMayHaveChanged() {}
    virtual void folderChanged(const std::string& folder) { (void)folder; }
    /// The terminal's prompt appears (true) or its line starts to run (false).
    virtual void promptChanged(bool waiting) { (void)waiting; }
};

/// The running interpreter as other threads reach it. Threads: any, for every operation.
class VENDRA_PLATFORM_API RQE
{
public:
    enum class State
    {
        idle,
        busy, ///< a task or a script runs
        closed
    };

    virtual ~RQE();

    /// Queues a task. Throws EngineError (queueFull, closed); the task is then deleted without `abandon`.
    virtual TaskId post(std::unique_ptr<Task> task) = 0;
    /// Runs a task that only looks (Interpreter says what a look may do), also while something else runs: then beside
    /// it, on a thread for looks, in turns with what runs. Otherwise, and in an engine that cannot do that, it is
    /// posted. Throws as `post`, and EngineError (queueFull) when too many looks wait.
    virtual TaskId look(std::unique_ptr<Task> task);
    /// Takes a task that has not begun out of the queue and abandons it (EngineError, cancelled). False when it has
    /// begun, ended or never was.
    virtual bool cancel(TaskId task) = 0;
    /// Breaks whatever runs, a task or the host's own script, as the language does on an interrupt from the keyboard.
    /// False when nothing runs.
    virtual bool interrupt() = 0;
    /// Breaks the task if it is the one running; false otherwise.
    virtual bool interrupt(TaskId task) = 0;
    /// Breaks the running task if it is this client's. While something else runs, the client's tasks that wait, looks
    /// aside, are taken out of the queue and abandoned (EngineError, cancelled). False when there was neither, and in
    /// an engine that cannot tell clients apart.
    virtual bool interruptClient(const std::string& client);
    /// What the running task tells about itself; "" when none runs.
    virtual std::string aboutRunning() const;

    virtual State state() const = 0;
    /// Tasks that wait, without the running one.
    virtual std::size_t queued() const = 0;
    virtual bool onInterpreterThread() const = 0;

    /// Held weakly: a listener that died is forgotten.
    virtual void addListener(const std::shared_ptr<EngineListener>& listener) = 0;
    virtual void removeListener(const EngineListener* listener) = 0;
};

} // namespace rqe
