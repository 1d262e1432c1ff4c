#include "connector/interpreter/InterpreterServiceProvider.h"

#include <utility>

#include "connector/core/ServiceFault.h"
#include "connector/interpreter/EngineTask.h"

namespace connector::interpreter::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

template <class M>
std::unique_ptr<M> downcast(MessagePtr&& message)
{
    return std::unique_ptr<M>(static_cast<M*>(message.release()));
}

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

MessageFuture FetchAnswer::deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, MessagePtr&& message,
                                     Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleFetchAnswer(downcast<FetchAnswer>(std::move(message)), std::move(address),
                                       std::move(context));
}

MessageFuture Interrupt::deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, MessagePtr&& message,
                                   Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleInterrupt(downcast<Interrupt>(std::move(message)), std::move(address), std::move(context));
}

InterpreterServiceProviderImpl::InterpreterServiceProviderImpl(
    std::shared_ptr<configuration::Configuration> configuration, boost::shared_ptr<rqe::RQE> engine)
    : settings_(std::move(configuration)), engine_(std::move(engine)), pump_(std::make_shared<Pump>())
{}

InterpreterServiceProviderImpl::~InterpreterServiceProviderImpl() { pump_->stop(); }

template <class Request>
MessageFuture InterpreterServiceProviderImpl::post(std::unique_ptr<Request> request,
                                                   const std::shared_ptr<Context>& context)
{
    settings_.requirePlace(engine_.get());
    EngineTask::Terms terms;
    terms.maxOutputBytes = settings_.maxOutputBytes();
    terms.grace = settings_.grace();
    terms.client = engine_tasks::clientOf(*context);
    if (!request->outputChannel.empty())
        terms.streamed = std::make_shared<StreamedOutput>(request->outputChannel, pump_);
    return EngineTask::post(makeTask(engine_, std::move(request), std::move(terms)), *context->cancellation());
}

MessageFuture InterpreterServiceProviderImpl::handleEval(std::unique_ptr<Eval>&& message, Address&&,
                                                         std::shared_ptr<Context>&& context)
{
    return post(std::move(message), context);
}

MessageFuture InterpreterServiceProviderImpl::handleFEval(std::unique_ptr<FEval>&& message, Address&&,
                                                          std::shared_ptr<Context>&& context)
{
    return post(std::move(message), context);
}

MessageFuture InterpreterServiceProviderImpl::handleFetchAnswer(std::unique_ptr<FetchAnswer>&& message, Address&&,
                                                                std::shared_ptr<Context>&&)
{
    return makeReadyFuture<MessagePtr>(std::make_unique<FetchAnswerResponse>(answers_->find(message->answer)));
}

MessageFuture InterpreterServiceProviderImpl::handleInterrupt(std::unique_ptr<Interrupt>&& message, Address&&,
                                                              std::shared_ptr<Context>&& context)
{
    const bool interrupted =
        engine_ &&
        (message->everybody ? engine_->interrupt() : engine_->interruptClient(engine_tasks::clientOf(*context).name));
    return makeReadyFuture<MessagePtr>(std::make_unique<InterruptResponse>(interrupted));
}

} // namespace connector::interpreter::v1
