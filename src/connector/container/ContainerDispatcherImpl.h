#pragma once

#include <atomic>
#include <map>
#include <shared_mutex>

#include "connector/container/ContainerDispatcher.h"
#include "connector/container/ContainerServiceProvider.h"

namespace connector::container::v1 {

class CONNECTOR_API ContainerDispatcherImpl final : public ContainerDispatcher
{
public:
    /// Maps the standing messages.
    ContainerDispatcherImpl();

    MessageFuture handle(std::unique_ptr<ContainerRequest>&& request, Address&& target,
                         std::shared_ptr<Context>&& context) override;
    void registerMessageMapping(const std::string& type, Address target, int limit) override;
    void registerMessageContainerMapping(const std::string& type, Address target, int limit) override;
    void deregisterMessageMapping(const std::string& type) override;
    void registerBeforeAddress(Address address) override;
    void deregisterBeforeAddress(Address address) override;
    void registerAfterAddress(Address address) override;
    void deregisterAfterAddress(Address address) override;
    std::shared_ptr<ContainerDispatcher> getPtr() override { return shared_from_this(); }

private:
    struct Mapping
    {
        Address target;
        bool together = false; ///< messages of the type travel as one container
        int limit = 0;
        bool manages = false; ///< for clients that may manage the connector
        std::shared_ptr<std::atomic<int>> unanswered = std::make_shared<std::atomic<int>>(0);
    };
    /// Replaced as a whole, so that a request takes them without a copy; null when there are none.
    using Addresses = std::shared_ptr<const std::vector<Address>>;

    void add(const std::string& type, Mapping mapping);
    std::shared_ptr<const Mapping> find(const std::string& type) const;
    MessageFuture goOn(std::unique_ptr<Message> message, const Addresses& after,
                       const std::shared_ptr<Context>& context);
    MessageFuture dispatch(std::unique_ptr<ContainerRequest> request, const Addresses& after,
                           const std::shared_ptr<Context>& context);

    mutable std::shared_mutex mutex_;
    /// By type, oldest first; the newest is in force.
    std::map<std::string, std::vector<std::shared_ptr<const Mapping>>, std::less<>> mappings_;
    Addresses before_;
    Addresses after_;
};

/// The dispatcher as the end of a container's address.
class CONNECTOR_API ContainerDispatcherServiceProvider : public ContainerServiceProvider
{};

class CONNECTOR_API ContainerDispatcherServiceProviderImpl final : public ContainerDispatcherServiceProvider
{
public:
    explicit ContainerDispatcherServiceProviderImpl(std::shared_ptr<ContainerDispatcher> dispatcher)
        : dispatcher_(std::move(dispatcher))
    {}

    MessageFuture handleRequest(std::unique_ptr<ContainerRequest>&& request, Address&& rest,
                                std::shared_ptr<Context>&& context) override
    {
        return dispatcher_->handle(std::move(request), std::move(rest), std::move(context));
    }

private:
    const std::shared_ptr<ContainerDispatcher> dispatcher_;
};

} // namespace connector::container::v1
