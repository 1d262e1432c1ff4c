#pragma once

#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"
#include "platform/us/ServiceInterface.h"

namespace connector {

/// A message was sent to a name that nobody serves (now).
class CONNECTOR_API UnknownServiceProvider : public std::runtime_error
{
public:
    explicit UnknownServiceProvider(const std::string& name);
    ~UnknownServiceProvider() override;
    const std::string& name() const noexcept { return name_; }

private:
    std::string name_;
};

/// The registry of providers and the way of messages between them. Threads: any.
class CONNECTOR_API Connector : public std::enable_shared_from_this<Connector>
{
public:
    virtual ~Connector() = default;
    virtual std::string getName() = 0;
    /// Starts every provider that is not running, in name order.
    virtual void start() = 0;
    /// Stops every provider, in name order; they stay registered and answer "Service exists but is not running.".
    virtual void stop() = 0;
    /// Starts the provider, then makes it reachable. One that had the name is stopped before, as both may own the same
    /// thing outside (a port, a file), answers so meanwhile, and is dropped. An exception of the start goes to the
    /// caller, nothing is registered, and the one before is started again. Throws std::invalid_argument for an empty
    /// name or provider.
    virtual void addServiceProvider(const std::string& name, std::shared_ptr<ServiceProvider> provider) = 0;
    /// Makes the name unknown, then stops the provider unless another name still leads to it. An unknown name is
    /// ignored.
    virtual void removeServiceProvider(const std::string& name) = 0;
    virtual std::set<std::string> listServiceProviders() = 0;
    /// Sends a message to the first name of `target`, which gets the rest of it. Never throws: an empty target, an
    /// unknown name (UnknownServiceProvider) and what a provider throws are failures of the future.
    virtual MessageFuture handle(std::unique_ptr<Message>&& message, Address&& target,
                                 std::shared_ptr<Context>&& context) = 0;
    /// A context for one request.
    virtual std::shared_ptr<Context> newContext() = 0;
    /// Sets the context of requests that this process makes on its own behalf; answers the one before, maybe null.
    virtual std::shared_ptr<Context> setProcessContext(std::shared_ptr<Context> context) = 0;
    virtual std::shared_ptr<Connector> getPtr() = 0;
    /// Whether the name leads to a provider that is running.
    virtual bool isServiceProviderRunning(const std::string& name) const = 0;
};

} // namespace connector

US_DECLARE_SERVICE_INTERFACE(connector::Connector, "connector.Connector/1.0")
