#pragma once

#include <atomic>

#include <Poco/Dynamic/Var.h>

#include "connector/core/ServiceProvider.h"

namespace connector::common_services {

/// A value that goes to the echo service and back.
struct CONNECTOR_API Echo final : Message
{
    explicit Echo(Poco::Dynamic::Var value) : data(std::move(value)) {}
    ~Echo() override;

    Poco::Dynamic::Var data; ///< a JSON value
};

/// Answers any message with itself, to try the way to a service and back. It takes every message class, so that it
/// serves no interface of its own; a client's message comes back under the type it was sent with.
class CONNECTOR_API EchoServiceProvider final : public ServiceProvider
{
public:
    /// Failures: std::runtime_error "Service exists but is not running."; std::invalid_argument without a message.
    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                          std::shared_ptr<Context>&& context) override;
    void start() override { running_ = true; }
    void stop() override { running_ = false; }
    bool isRunning() const override { return running_; }

private:
    std::atomic<bool> running_{false};
};

} // namespace connector::common_services
