#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/Export.h"
#include "platform/rqe/ProcessSession.h"
#include "platform/rqe/RQE.h"

namespace rqe {

/// What LocalRQE needs of the host's script language.
class VENDRA_PLATFORM_API LanguageHost
{
public:
    virtual ~LanguageHost();
    /// Takes the language's lock, calls `body`, releases the lock, also on the way out of an exception. Interpreter
    /// thread.
    virtual void withInterpreter(const std::function<void(Interpreter&)>& body) = 0;
    /// As withInterpreter, for looks: on the looking thread, while other code may run on the interpreter thread. Waits
    /// for the lock as long as it takes. The default throws std::logic_error.
    virtual void withLook(const std::function<void(Interpreter&)>& body);
    /// Makes the code that runs on the interpreter thread stop with the language's interrupt error. Any thread; quick.
    virtual void breakRunning() = 0;
    /// Forgets an interrupt that came too late to break anything. Interpreter thread, inside withInterpreter.
    virtual void discardBreak() = 0;
};

/// The engine of a host that runs in this process: a bounded queue in front of the interpreter thread. The host calls
/// `runOne` from that thread whenever it has nothing else to do, and waits on `wakeFd` in between.
class VENDRA_PLATFORM_API LocalRQE : public RQE
{
public:
    static constexpr std::size_t kDefaultCapacity = 10'000;

    /// The calling thread becomes the interpreter thread. `host` must outlive the engine.
    explicit LocalRQE(LanguageHost& host, std::size_t capacity = kDefaultCapacity);
    ~LocalRQE() override;

    TaskId post(std::unique_ptr<Task> task) override;
    TaskId look(std::unique_ptr<Task> task) override;
    bool cancel(TaskId task) override;
    bool interrupt() override;
    bool interrupt(TaskId task) override;
    bool interruptClient(const std::string& client) override;
    std::string aboutRunning() const override;
    State state() const override;
    std::size_t queued() const override;
    bool onInterpreterThread() const override;
    void addListener(const std::shared_ptr<EngineListener>& listener) override;
    void removeListener(const EngineListener* listener) override;

    /// Runs the oldest task to its end; false when there is none. Interpreter thread, without the language's lock; not
    /// from inside a task.
    bool runOne();

    /// A descriptor that polls readable while tasks wait; never read it.
    int wakeFd() const noexcept;

    /// Marks the host's own script or prompt line as running, for `state` and `interrupt`. Interpreter thread.
    class VENDRA_PLATFORM_API ForegroundScope
    {
    public:
        explicit ForegroundScope(LocalRQE& engine);
        /// Tells listeners that variables may have changed.
        ~ForegroundScope();
        ForegroundScope(const ForegroundScope&) = delete;
        ForegroundScope& operator=(const ForegroundScope&) = delete;

    private:
        LocalRQE& engine_;
    };

    void notifyFolderChanged(const std::string& folder);
    void notifyPrompt(bool waiting);

    /// Abandons what waits (EngineError, closed, with this text), refuses what comes, and ends the looking thread, for
    /// whose end it waits at most a second (from inside a task the destructor does). Interpreter thread.
    void close(const std::string& reason);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

/// A session around one engine; what a host hands to ProcessSession::setSession.
VENDRA_PLATFORM_API boost::shared_ptr<Session> makeSession(boost::shared_ptr<RQE> engine);

} // namespace rqe
