#include "connector/desktop/EngineCall.h"

#include <stdexcept>
#include <utility>

#include "connector/core/ServiceFault.h"
#include "connector/engine_tasks/Client.h"
#include "connector/engine_tasks/EngineFault.h"

namespace connector::desktop::v1 {
namespace {

using engine_tasks::Client;
using MessagePtr = std::unique_ptr<Message>;

/// The answer is kept until the interpreter's lock is released.
class EngineCall final : public rqe::Task
{
public:
    /// `client`: empty for a look, which no interrupt is for.
    EngineCall(EngineWork work, const rqe::RQE& engine, std::shared_ptr<EngineAnswer> answer, Client client)
        : work_(std::move(work)), engine_(engine), answer_(std::move(answer)), client_(std::move(client))
    {}

    void run(rqe::Interpreter& interpreter) override
    {
        answer_->begin(!engine_.onInterpreterThread());
        message_ = work_(interpreter);
    }

    void finish() noexcept override { answer_->succeed(std::move(message_)); }

    void abandon(std::exception_ptr reason) noexcept override { answer_->fail(faultOf(reason)); }

    const std::string& client() const noexcept override { return client_.name; }
    std::string about() const override { return client_.kind; }

private:
    const EngineWork work_;
    const rqe::RQE& engine_; ///< runs this, so it is there
    const std::shared_ptr<EngineAnswer> answer_;
    const Client client_;
    MessagePtr message_;
};

using Begun = std::pair<MessageFuture, std::shared_ptr<EngineAnswer>>;

Begun begin(const boost::shared_ptr<rqe::RQE>& engine, const std::shared_ptr<Context>& context, EngineWork work,
            bool looks)
{
    if (!engine)
        throw ServiceFault("unavailable", "There is no interpreter in this process.");
    if (!looks && engine->queued() >= kMaxQueued)
        throw ServiceFault("busy", "Too many requests wait for the interpreter.");

    auto answer = std::make_shared<EngineAnswer>();
    auto future = answer->future();
    auto task = std::make_unique<EngineCall>(std::move(work), *engine, answer,
                                             looks ? Client() : engine_tasks::clientOf(*context));
    try {
        answer->id = looks ? engine->look(std::move(task)) : engine->post(std::move(task));
    } catch (const rqe::EngineError& error) {
        throw engine_tasks::faultOf(error);
    }
    // The answer may be there already: its end is no business of the registration, which then cancels nothing.
    answer->registration = engine_tasks::takeOutWhenCancelled(*context->cancellation(), engine, answer->id);
    return {std::move(future), std::move(answer)};
}

} // namespace

std::exception_ptr faultOf(const std::exception_ptr& reason)
try {
    std::rethrow_exception(reason);
} catch (const rqe::EngineError& error) {
    return std::make_exception_ptr(engine_tasks::faultOf(error));
} catch (const rqe::ScriptError& error) {
    return std::make_exception_ptr(engine_tasks::faultOf(error));
} catch (const rqe::UnsteadyError& error) {
    return std::make_exception_ptr(ServiceFault("busy", error.what()));
} catch (const std::out_of_range& error) {
    return std::make_exception_ptr(ServiceFault("notFound", error.what()));
} catch (...) {
    return reason;
}

void EngineAnswer::succeed(std::unique_ptr<Message> answer) noexcept
{
    stage_ = Stage::settled;
    promise_.setValue(std::move(answer));
}

void EngineAnswer::fail(const std::exception_ptr& failure) noexcept
{
    stage_ = Stage::settled;
    promise_.setException(failure);
}

MessageFuture callEngine(const boost::shared_ptr<rqe::RQE>& engine, const std::shared_ptr<Context>& context,
                         EngineWork work)
{
    return begin(engine, context, std::move(work), false).first;
}

std::pair<MessageFuture, std::shared_ptr<EngineAnswer>>
lookAtEngine(const boost::shared_ptr<rqe::RQE>& engine, const std::shared_ptr<Context>& context, EngineWork work)
{
    return begin(engine, context, std::move(work), true);
}

} // namespace connector::desktop::v1
