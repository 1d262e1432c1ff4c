#include "connector/interpreter/InterpreterServiceProvider.h"

#include <algorithm>
#include <utility>

#include <boost/smart_ptr/weak_ptr.hpp>

#include "connector/core/ServiceFault.h"
#include "platform/fl/i18n.h"

namespace connector::interpreter::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

/// Gathers what is printed, up to a limit.
class OutputBuffer final : public rqe::OutputSink
{
public:
    explicit OutputBuffer(std::size_t limit) : limit_(limit) {}

    void write(rqe::Stream, std::string_view text) override
    {
        const auto kept = std::min(text.size(), limit_ - output_.text.size());
        output_.text.append(text.substr(0, kept));
        output_.omittedBytes += text.size() - kept;
    }

    Output take()
    {
        // A cut in the middle of a character leaves half of it.
        if (output_.omittedBytes > 0)
            output_.text = fl::i18n::toValidUtf8(output_.text);
        return std::move(output_);
    }

private:
    const std::size_t limit_;
    Output output_;
};

ServiceFault faultOf(const rqe::EngineError& error)
{
    switch (error.reason()) {
    case rqe::EngineError::Reason::queueFull:
        return {"busy", error.what()};
    case rqe::EngineError::Reason::cancelled:
        return {"cancelled", error.what()};
    case rqe::EngineError::Reason::closed:
        break;
    }
    return {"unavailable", error.what()};
}

ServiceFault faultOf(const rqe::ScriptError& error, const Output& output)
{
    const bool interrupted = error.type() == "KeyboardInterrupt";
    return {interrupted ? "interrupted" : "scriptError",
            error.what(),
            {{"error", error.type()}, {"traceback", error.traceback()}, {"output", output.text}}};
}

template <class M>
std::unique_ptr<M> downcast(MessagePtr&& message)
{
    return std::unique_ptr<M>(static_cast<M*>(message.release()));
}

} // namespace

/// One request at the engine: what it answers is kept until the interpreter's lock is released.
class EngineTask : public rqe::Task
{
public:
    explicit EngineTask(std::size_t maxOutputBytes) : output_(maxOutputBytes) {}

    MessageFuture future() const { return promise_.future(); }

    /// What takes the request out of the queue when its client goes away; shared with the thread that posts, which
    /// fills it when the task may have ended already.
    std::shared_ptr<CancellationToken::Registration> registration() const { return registration_; }

    void run(rqe::Interpreter& interpreter) final
    {
        try {
            answer_ = work(interpreter, output_);
        } catch (const rqe::ScriptError& error) {
            failure_ = std::make_exception_ptr(faultOf(error, output_.take()));
        }
    }

    void finish() noexcept final
    {
        registration_.reset();
        if (failure_)
            promise_.setException(failure_);
        else
            promise_.setValue(std::move(answer_));
    }

    void abandon(std::exception_ptr reason) noexcept final
    {
        registration_.reset();
        try {
            std::rethrow_exception(reason);
        } catch (const rqe::EngineError& error) {
            promise_.setException(faultOf(error));
        } catch (...) {
            promise_.setException(reason);
        }
    }

protected:
    virtual MessagePtr work(rqe::Interpreter& interpreter, OutputBuffer& output) = 0;

private:
    OutputBuffer output_;
    MessagePtr answer_;
    std::exception_ptr failure_;
    Promise<MessagePtr> promise_;
    std::shared_ptr<CancellationToken::Registration> registration_ =
        std::make_shared<CancellationToken::Registration>();
};

namespace {

class EvalTask final : public EngineTask
{
public:
    EvalTask(std::unique_ptr<Eval> request, std::size_t maxOutputBytes)
        : EngineTask(maxOutputBytes), request_(std::move(request))
    {}

private:
    MessagePtr work(rqe::Interpreter& interpreter, OutputBuffer& output) override
    {
        rqe::EvalOptions options;
        options.wantValue = request_->wantValue;
        options.echo = request_->echo;
        auto result = interpreter.evaluate(request_->code, options, output);

        auto answer = std::make_unique<EvalResponse>();
        answer->hasValue = result.hasValue;
        answer->value = std::move(result.value);
        answer->valueText = std::move(result.valueText);
        answer->conversionError = std::move(result.conversionError);
        answer->output = output.take();
        return answer;
    }

    const std::unique_ptr<Eval> request_;
};

class FEvalTask final : public EngineTask
{
public:
    FEvalTask(std::unique_ptr<FEval> request, std::size_t maxOutputBytes)
        : EngineTask(maxOutputBytes), request_(std::move(request))
    {}

private:
    MessagePtr work(rqe::Interpreter& interpreter, OutputBuffer& output) override
    {
        auto answer = std::make_unique<FEvalResponse>();
        answer->results =
            interpreter.call(request_->function, std::move(request_->arguments), request_->results, output);
        answer->output = output.take();
        return answer;
    }

    const std::unique_ptr<FEval> request_;
};

} // namespace

MessageFuture Eval::deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, MessagePtr&& message,
                              Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleEval(downcast<Eval>(std::move(message)), std::move(address), std::move(context));
}

MessageFuture FEval::deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, MessagePtr&& message,
                               Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleFEval(downcast<FEval>(std::move(message)), std::move(address), std::move(context));
}

MessageFuture Interrupt::deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, MessagePtr&& message,
                                   Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleInterrupt(downcast<Interrupt>(std::move(message)), std::move(address), std::move(context));
}

InterpreterServiceProviderImpl::InterpreterServiceProviderImpl(
    std::shared_ptr<configuration::Configuration> configuration, boost::shared_ptr<rqe::RQE> engine)
    : configuration_(std::move(configuration)), engine_(std::move(engine))
{}

std::size_t InterpreterServiceProviderImpl::maxOutputBytes() const
{
    return static_cast<std::size_t>(configuration_->getInteger("interpreter.maxOutputBytes"));
}

MessageFuture InterpreterServiceProviderImpl::post(std::unique_ptr<EngineTask> task,
                                                   const std::shared_ptr<Context>& context)
{
    if (!engine_)
        throw ServiceFault("unavailable", "There is no interpreter in this process.");
    if (engine_->queued() >= static_cast<std::size_t>(configuration_->getInteger("interpreter.maxQueued")))
        throw ServiceFault("busy", "Too many requests wait for the interpreter.");

    auto future = task->future();
    const auto registration = task->registration();
    rqe::TaskId id = 0;
    try {
        id = engine_->post(std::move(task));
    } catch (const rqe::EngineError& error) {
        throw faultOf(error);
    }
    // A task that has begun is not cancelled: others may wait for its effects.
    *registration = context->cancellation()->onCancel([weak = boost::weak_ptr<rqe::RQE>(engine_), id] {
        if (auto engine = weak.lock())
            engine->cancel(id);
    });
    return future;
}

MessageFuture InterpreterServiceProviderImpl::handleEval(std::unique_ptr<Eval>&& message, Address&&,
                                                         std::shared_ptr<Context>&& context)
{
    return post(std::make_unique<EvalTask>(std::move(message), maxOutputBytes()), context);
}

MessageFuture InterpreterServiceProviderImpl::handleFEval(std::unique_ptr<FEval>&& message, Address&&,
                                                          std::shared_ptr<Context>&& context)
{
    return post(std::make_unique<FEvalTask>(std::move(message), maxOutputBytes()), context);
}

MessageFuture InterpreterServiceProviderImpl::handleInterrupt(std::unique_ptr<Interrupt>&&, Address&&,
                                                              std::shared_ptr<Context>&&)
{
    return makeReadyFuture<MessagePtr>(std::make_unique<InterruptResponse>(engine_ && engine_->interrupt()));
}

} // namespace connector::interpreter::v1
