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

MessageFuture Interrupt::deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, MessagePtr&& message,
                                   Address&& address, std::shared_ptr<Context>&& context)
{
    return provider->handleInterrupt(downcast<Interrupt>(std::move(message)), std::move(address), std::move(context));
}

InterpreterServiceProviderImpl::InterpreterServiceProviderImpl(
    std::shared_ptr<configuration::Configuration> configuration, boost::shared_ptr<rqe::RQE> engine)
    : configuration_(std::move(configuration)), engine_(std::move(engine)), pump_(std::make_shared<Pump>())
{}

InterpreterServiceProviderImpl::~InterpreterServiceProviderImpl() { pump_->stop(); }

template <class Request>
MessageFuture InterpreterServiceProviderImpl::post(std::unique_ptr<Request> request,
                                                   const std::shared_ptr<Context>& context)
{
    if (!engine_)
        throw ServiceFault("unavailable", "There is no interpreter in this process.");
    if (engine_->queued() >= static_cast<std::size_t>(configuration_->getInteger("interpreter.maxQueued")))
        throw ServiceFault("busy", "Too many requests wait for the interpreter.");

    EngineTask::Terms terms;
    terms.maxOutputBytes = static_cast<std::size_t>(configuration_->getInteger("interpreter.maxOutputBytes"));
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

MessageFuture InterpreterServiceProviderImpl::handleInterrupt(std::unique_ptr<Interrupt>&&, Address&&,
                                                              std::shared_ptr<Context>&&)
{
    return makeReadyFuture<MessagePtr>(std::make_unique<InterruptResponse>(engine_ && engine_->interrupt()));
}

} // namespace connector::interpreter::v1
