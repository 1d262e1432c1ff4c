#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/common/TickManager.h"
#include "connector/core/ServiceFault.h"
#include "connector/engine_tasks/Client.h"
#include "connector/engine_tasks/EngineFault.h"
#include "connector/interpreter/InterpreterMessages.h"
#include "connector/interpreter/StreamedOutput.h"
#include "platform/rqe/RQE.h"

namespace connector::interpreter::v1 {

using engine_tasks::faultOf;
/// The failure for a client that the end of a task without a run stands for.
std::exception_ptr faultOf(const std::exception_ptr& reason);

/// Gathers what is printed, up to a limit.
class OutputBuffer final : public rqe::OutputSink
{
public:
    explicit OutputBuffer(std::size_t limit) : limit_(limit) {}
    void write(rqe::Stream stream, std::string_view text) override;
    bool tryWrite(rqe::Stream stream, std::string_view text) override
    {
        write(stream, text);
        return true;
    }
    Output take();

private:
    const std::size_t limit_;
    Output output_;
};

/// Interrupts a task of the engine when its time is over, and again after as much time for code that goes on. Made and
/// destroyed on the interpreter thread, around the task's work.
class Deadline
{
public:
    using TaskNumber = std::shared_ptr<const std::atomic<rqe::TaskId>>;

    /// None for zero.
    Deadline(std::chrono::milliseconds time, const boost::shared_ptr<rqe::RQE>& engine, TaskNumber task);
    /// What an error of the script's means to its client, an interrupt that this caused included. `printed`: output
    /// that goes with it.
    std::exception_ptr faultOf(const rqe::ScriptError& error, const std::string& printed) const;

private:
    const std::chrono::milliseconds time_;
    const std::shared_ptr<std::atomic<bool>> over_ = std::make_shared<std::atomic<bool>>(false);
    common::TickManager::Subscription ticks_;
};

/// For the terminal: whose code runs, and how it begins.
std::string aboutWork(const engine_tasks::Client& client, const std::string& code);

/// A request at the engine. What it answers is kept until the interpreter's lock is released.
class EngineTask : public rqe::Task
{
public:
    struct Terms
    {
        std::size_t maxOutputBytes = 0;
        std::chrono::milliseconds deadline{0}; ///< none when zero
        std::chrono::milliseconds grace{0};    ///< how long it goes on without its client
        engine_tasks::Client client;
        std::shared_ptr<StreamedOutput> streamed; ///< takes the output; null to keep it for the answer
        std::function<bool()> isWanted;           ///< asked before it runs; empty for yes
        std::shared_ptr<void> keep;               ///< lives as long as the task
    };

    EngineTask(boost::shared_ptr<rqe::RQE> engine, Terms terms);

    MessageFuture future() const { return promise_.future(); }

    const std::string& client() const noexcept final { return terms_.client.name; }
    std::string about() const final { return aboutWork(terms_.client, what()); }
    void run(rqe::Interpreter& interpreter) final;
    void finish() noexcept final;
    void abandon(std::exception_ptr reason) noexcept final;

    /// Puts a task into the engine's queue. When `cancellation` says that its client left, it is taken out again, or
    /// interrupted, if it has begun, after the time of grace, and again after as much time while it goes on. Throws
    /// ServiceFault "busy" and "unavailable".
    static MessageFuture post(std::unique_ptr<EngineTask> task, CancellationToken& cancellation);

protected:
    virtual std::unique_ptr<Message> work(rqe::Interpreter& interpreter, rqe::OutputSink& output) = 0;
    /// Where the answer has it; null for an answer without one.
    virtual Output* outputOf(Message& answer) = 0;
    /// Its code, or what it calls.
    virtual const std::string& what() const = 0;

private:
    /// Shared with the thread that posts, which fills it when the task may have ended already, and with who cancels.
    struct Posted
    {
        void end(const boost::weak_ptr<rqe::RQE>& engine, std::chrono::milliseconds grace);

        std::atomic<rqe::TaskId> number{0};
        CancellationToken::Registration registration;
        std::mutex mutex;
        common::TickManager::Subscription interrupts; ///< once the client left
    };

    const boost::shared_ptr<rqe::RQE> engine_;
    Terms terms_;
    OutputBuffer output_;
    std::unique_ptr<Message> answer_;
    std::exception_ptr failure_;
    Promise<std::unique_ptr<Message>> promise_;
    std::shared_ptr<Posted> posted_ = std::make_shared<Posted>();
};

/// Runs the code; the answer has no output.
EvalResponse evaluate(rqe::Interpreter& interpreter, const Eval& request, rqe::OutputSink& output);

std::unique_ptr<EngineTask> makeTask(boost::shared_ptr<rqe::RQE> engine, std::unique_ptr<Eval> request,
                                     EngineTask::Terms terms);
std::unique_ptr<EngineTask> makeTask(boost::shared_ptr<rqe::RQE> engine, std::unique_ptr<FEval> request,
                                     EngineTask::Terms terms);

} // namespace connector::interpreter::v1
