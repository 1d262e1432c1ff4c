#include "connector/interpreter/EngineTask.h"

#include <algorithm>
#include <utility>

#include <boost/smart_ptr/weak_ptr.hpp>

#include "platform/fl/i18n.h"

namespace connector::interpreter::v1 {

using MessagePtr = std::unique_ptr<Message>;

std::exception_ptr faultOf(const std::exception_ptr& reason)
try {
    std::rethrow_exception(reason);
} catch (const rqe::EngineError& error) {
    return std::make_exception_ptr(faultOf(error));
} catch (...) {
    return reason;
}

void OutputBuffer::write(rqe::Stream, std::string_view text)
{
    const auto kept = std::min(text.size(), limit_ - output_.text.size());
    output_.text.append(text.substr(0, kept));
    output_.omittedBytes += text.size() - kept;
}

Output OutputBuffer::take()
{
    // A cut in the middle of a character leaves half of it.
    if (output_.omittedBytes > 0)
        output_.text = fl::i18n::toValidUtf8(output_.text);
    return std::exchange(output_, {});
}

Deadline::Deadline(std::chrono::milliseconds time, const boost::shared_ptr<rqe::RQE>& engine, TaskNumber task)
    : time_(time)
{
    if (time_.count() == 0)
        return;
    ticks_ = common::TickManager::instance()->every(
        time_, [over = over_, weak = boost::weak_ptr<rqe::RQE>(engine), task = std::move(task)] {
            *over = true;
            if (const auto known = weak.lock())
                known->interrupt(*task);
        });
}

std::exception_ptr Deadline::faultOf(const rqe::ScriptError& error, const std::string& printed) const
{
    const auto fault = engine_tasks::faultOf(error, {{"output", printed}});
    if (fault.code() != "interrupted" || !*over_)
        return std::make_exception_ptr(fault);
    return std::make_exception_ptr(
        ServiceFault("deadline", "It took longer than " + std::to_string(time_.count()) + " ms.", fault.details()));
}

EvalResponse evaluate(rqe::Interpreter& interpreter, const Eval& request, rqe::OutputSink& output)
{
    rqe::EvalOptions options;
    options.wantValue = request.wantValue;
    options.echo = request.echo;
    auto result = interpreter.evaluate(request.code, options, output);

    EvalResponse answer;
    answer.hasValue = result.hasValue;
    answer.value = std::move(result.value);
    answer.valueText = std::move(result.valueText);
    answer.conversionError = std::move(result.conversionError);
    return answer;
}

EngineTask::EngineTask(boost::shared_ptr<rqe::RQE> engine, Terms terms)
    : engine_(std::move(engine)), terms_(std::move(terms)), output_(terms_.maxOutputBytes)
{}

void EngineTask::run(rqe::Interpreter& interpreter)
{
    if (terms_.isWanted && !terms_.isWanted())
        throw rqe::EngineError(rqe::EngineError::Reason::cancelled, "The client went away.");
    const Deadline deadline(terms_.deadline, engine_, Deadline::TaskNumber(posted_, &posted_->number));
    try {
        answer_ = terms_.streamed ? work(interpreter, *terms_.streamed) : work(interpreter, output_);
    } catch (const rqe::ScriptError& error) {
        failure_ = deadline.faultOf(error, output_.take().text);
    }
}

void EngineTask::finish() noexcept
{
    posted_.reset();
    terms_.keep.reset();
    try {
        const auto messages = terms_.streamed ? terms_.streamed->finish() : 0;
        if (auto* output = answer_ ? outputOf(*answer_) : nullptr) {
            *output = output_.take();
            output->messages = messages;
        }
    } catch (...) {
        failure_ = failure_ ? failure_ : std::current_exception();
    }
    if (failure_)
        promise_.setException(failure_);
    else
        promise_.setValue(std::move(answer_));
}

void EngineTask::abandon(std::exception_ptr reason) noexcept
{
    posted_.reset();
    terms_.keep.reset();
    promise_.setException(faultOf(reason));
}

MessageFuture EngineTask::post(std::unique_ptr<EngineTask> task, CancellationToken& cancellation)
{
    auto future = task->future();
    const auto posted = task->posted_;
    const auto grace = task->terms_.grace;
    const boost::weak_ptr<rqe::RQE> weak(task->engine_);
    try {
        posted->number = weak.lock()->post(std::move(task));
    } catch (const rqe::EngineError& error) {
        throw faultOf(error);
    }
    posted->registration = cancellation.onCancel([weak, grace, held = std::weak_ptr(posted)] {
        if (const auto known = held.lock())
            known->end(weak, grace);
    });
    return future;
}

void EngineTask::Posted::end(const boost::weak_ptr<rqe::RQE>& engine, std::chrono::milliseconds grace)
{
    const auto known = engine.lock();
    if (!known || known->cancel(number))
        return;
    std::lock_guard lock(mutex);
    interrupts = common::TickManager::instance()->every(std::max(grace, std::chrono::milliseconds(1)),
                                                        [engine, task = number.load()] {
                                                            if (const auto running = engine.lock())
                                                                running->interrupt(task);
                                                        });
}

std::string aboutWork(const engine_tasks::Client& client, const std::string& code)
{
    constexpr std::size_t kShown = 60;
    const auto line = code.substr(0, code.find('\n'));
    auto text = fl::i18n::toValidUtf8(line.substr(0, kShown));
    // A terminal would obey them.
    std::erase_if(text, [](unsigned char byte) { return byte < ' ' || byte == 0x7F; });
    return client.kind + ": " + text + (text.size() < code.size() ? " …" : "");
}

namespace {

class EvalTask final : public EngineTask
{
public:
    EvalTask(boost::shared_ptr<rqe::RQE> engine, std::unique_ptr<Eval> request, Terms terms)
        : EngineTask(std::move(engine), std::move(terms)), request_(std::move(request))
    {}

private:
    MessagePtr work(rqe::Interpreter& interpreter, rqe::OutputSink& output) override
    {
        return std::make_unique<EvalResponse>(evaluate(interpreter, *request_, output));
    }
    Output* outputOf(Message& answer) override { return &static_cast<EvalResponse&>(answer).output; }
    const std::string& what() const override { return request_->code; }

    const std::unique_ptr<Eval> request_;
};

class FEvalTask final : public EngineTask
{
public:
    FEvalTask(boost::shared_ptr<rqe::RQE> engine, std::unique_ptr<FEval> request, Terms terms)
        : EngineTask(std::move(engine), std::move(terms)), request_(std::move(request))
    {}

private:
    MessagePtr work(rqe::Interpreter& interpreter, rqe::OutputSink& output) override
    {
        auto answer = std::make_unique<FEvalResponse>();
        rqe::Arguments arguments(std::move(request_->arguments));
        arguments.named = std::move(request_->keywordArguments);
        answer->results = interpreter.call(request_->function, std::move(arguments), request_->results, output);
        return answer;
    }
    Output* outputOf(Message& answer) override { return &static_cast<FEvalResponse&>(answer).output; }
    const std::string& what() const override { return request_->function; }

    const std::unique_ptr<FEval> request_;
};

template <class TaskType, class Request>
std::unique_ptr<EngineTask> make(boost::shared_ptr<rqe::RQE> engine, std::unique_ptr<Request> request,
                                 EngineTask::Terms terms)
{
    terms.deadline = request->deadline;
    return std::make_unique<TaskType>(std::move(engine), std::move(request), std::move(terms));
}

} // namespace

std::unique_ptr<EngineTask> makeTask(boost::shared_ptr<rqe::RQE> engine, std::unique_ptr<Eval> request,
                                     EngineTask::Terms terms)
{
    return make<EvalTask>(std::move(engine), std::move(request), std::move(terms));
}

std::unique_ptr<EngineTask> makeTask(boost::shared_ptr<rqe::RQE> engine, std::unique_ptr<FEval> request,
                                     EngineTask::Terms terms)
{
    return make<FEvalTask>(std::move(engine), std::move(request), std::move(terms));
}

} // namespace connector::interpreter::v1
