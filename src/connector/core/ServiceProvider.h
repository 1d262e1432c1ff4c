#pragma once

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

#include "connector/Export.h"
#include "connector/common/Lifecycle.h"
#include "connector/core/Address.h"
#include "connector/core/Context.h"
#include "connector/core/Future.h"
#include "connector/core/Message.h"

namespace connector {

using MessageFuture = Future<std::unique_ptr<Message>>;

/// Serves messages under a name in the registry. Started when it is added, stopped when it is removed.
class CONNECTOR_API ServiceProvider : public common::Lifecycle, public std::enable_shared_from_this<ServiceProvider>
{
public:
    /// Answers a message, or hands it on to what is left of the address. Any thread; must not block on an I/O thread.
    virtual MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                                  std::shared_ptr<Context>&& context) = 0;
};

/// A message for providers of interface I. A request type derives from it and calls the matching operation of I.
template <class I>
class ServiceMessage : public Message
{
public:
    /// `message` is this object; the callee owns it from then on.
    virtual MessageFuture deliverTo(std::shared_ptr<I> provider, std::unique_ptr<Message>&& message, Address&& address,
                                    std::shared_ptr<Context>&& context) = 0;
};

/// Base of a typed provider: I derives from ServiceProviderAPI<I>.
template <class I>
class ServiceProviderAPI : public ServiceProvider
{
public:
    /// Failures: std::runtime_error "Service exists but is not running." before the message is looked at;
    /// std::invalid_argument "Incorrect message type. …" when it is not a ServiceMessage<I>.
    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                          std::shared_ptr<Context>&& context) override
    {
        if (!isRunning())
            return makeFailedFuture<std::unique_ptr<Message>>(std::runtime_error("Service exists but is not running."));

        if (auto* typed = dynamic_cast<ServiceMessage<I>*>(message.get()))
            return typed->deliverTo(std::static_pointer_cast<I>(shared_from_this()), std::move(message),
                                    std::move(address), std::move(context));

        const Message* actual = message.get();
        const std::string found = actual ? typeid(*actual).name() : "nothing";
        return makeFailedFuture<std::unique_ptr<Message>>(
            std::invalid_argument(std::string("Incorrect message type. Expected: ") + typeid(ServiceMessage<I>).name() +
                                  " but found " + found));
    }

    void start() override
    {
        if (!running_.load(std::memory_order_acquire)) {
            starting();
            running_.store(true, std::memory_order_release);
        }
    }

    void stop() override
    {
        if (running_.exchange(false, std::memory_order_acq_rel))
            stopped();
    }

    bool isRunning() const override { return running_.load(std::memory_order_acquire); }

protected:
    /// Before the first message can come; an exception keeps the provider stopped.
    virtual void starting() {}
    /// After the last message was let in; messages already let in may still be at work.
    virtual void stopped() {}

private:
    std::atomic<bool> running_{false};
};

} // namespace connector
