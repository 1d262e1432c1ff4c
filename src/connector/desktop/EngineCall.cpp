#include "connector/desktop/EngineCall.h"

#include <stdexcept>
#include <utility>

#include <boost/smart_ptr/weak_ptr.hpp>

#include "connector/core/ServiceFault.h"

namespace connector::desktop::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

const char* codeOf(const rqe::EngineError& error)
{
    switch (error.reason()) {
    case rqe::EngineError::Reason::queueFull:
        return "busy";
    case rqe::EngineError::Reason::cancelled:
        return "cancelled";
    case rqe::EngineError::Reason::closed:
        break;
    }
    return "unavailable";
}

/// The answer is kept until the interpreter's lock is released.
class EngineCall final : public rqe::Task
{
public:
    explicit EngineCall(EngineWork work) : work_(std::move(work)) {}

    MessageFuture future() const { return promise_.future(); }

    /// What takes the task out of the queue when its client goes away; shared with the thread that posts, which fills
    /// it when the task may have ended already.
    std::shared_ptr<CancellationToken::Registration> registration() const { return registration_; }

    void run(rqe::Interpreter& interpreter) override { answer_ = work_(interpreter); }

    void finish() noexcept override
    {
        registration_.reset();
        promise_.setValue(std::move(answer_));
    }

    void abandon(std::exception_ptr reason) noexcept override
    {
        registration_.reset();
        promise_.setException(faultOf(reason));
    }

private:
    const EngineWork work_;
    MessagePtr answer_;
    Promise<MessagePtr> promise_;
    std::shared_ptr<CancellationToken::Registration> registration_ =
        std::make_shared<CancellationToken::Registration>();
};

} // namespace

std::exception_ptr faultOf(const std::exception_ptr& reason)
try {
    std::rethrow_exception(reason);
} catch (const rqe::EngineError& error) {
    return std::make_exception_ptr(ServiceFault(codeOf(error), error.what()));
} catch (const rqe::ScriptError& error) {
    const bool interrupted = error.type() == "KeyboardInterrupt";
    return std::make_exception_ptr(ServiceFault(interrupted ? "interrupted" : "scriptError", error.what(),
                                                {{"error", error.type()}, {"traceback", error.traceback()}}));
} catch (const std::out_of_range& error) {
    return std::make_exception_ptr(ServiceFault("notFound", error.what()));
} catch (...) {
    return reason;
}

MessageFuture callEngine(const boost::shared_ptr<rqe::RQE>& engine, const std::shared_ptr<Context>& context,
                         EngineWork work)
{
    if (!engine)
        throw ServiceFault("unavailable", "There is no interpreter in this process.");
    if (engine->queued() >= kMaxQueued)
        throw ServiceFault("busy", "Too many requests wait for the interpreter.");

    auto task = std::make_unique<EngineCall>(std::move(work));
    auto future = task->future();
    const auto registration = task->registration();
    rqe::TaskId id = 0;
    try {
        id = engine->post(std::move(task));
    } catch (const rqe::EngineError& error) {
        throw ServiceFault(codeOf(error), error.what());
    }
    *registration = context->cancellation()->onCancel([weak = boost::weak_ptr<rqe::RQE>(engine), id] {
        if (auto known = weak.lock())
            known->cancel(id);
    });
    return future;
}

} // namespace connector::desktop::v1
