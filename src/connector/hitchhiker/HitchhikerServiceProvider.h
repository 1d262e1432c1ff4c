#pragma once

#include "connector/container/ContainerServiceProvider.h"
#include "connector/hitchhiker/HitchhikerMessages.h"
#include "connector/hitchhiker/HitchhikerService.h"

namespace connector::hitchhiker::v1 {

/// Queues messages one by one.
class CONNECTOR_API HitchhikerServiceProvider : public ServiceProviderAPI<HitchhikerServiceProvider>
{
public:
    /// Throws as HitchhikerService::queueMessage.
    virtual QueueHitchhikerResponse queueHitchhiker(const QueueHitchhiker& request) = 0;
};

class CONNECTOR_API HitchhikerServiceProviderImpl final : public HitchhikerServiceProvider
{
public:
    explicit HitchhikerServiceProviderImpl(std::shared_ptr<HitchhikerService> service) : service_(std::move(service)) {}

    QueueHitchhikerResponse queueHitchhiker(const QueueHitchhiker& request) override;

private:
    const std::shared_ptr<HitchhikerService> service_;
};

/// Queues the QueueHitchhiker messages of a container, and puts what waits for a session behind the answers to its
/// client. At most once: what was put on an answer that then cannot be sent is lost.
class CONNECTOR_API HitchhikerContainerServiceProvider final : public container::v1::ContainerServiceProvider
{
public:
    explicit HitchhikerContainerServiceProvider(std::shared_ptr<HitchhikerService> service)
        : service_(std::move(service))
    {}

    /// At the end of an address every entry is served, QueueHitchhiker being the only type taken; before others the
    /// request is handed on.
    MessageFuture handleRequest(std::unique_ptr<container::v1::ContainerRequest>&& request, Address&& rest,
                                std::shared_ptr<Context>&& context) override;
    MessageFuture handleResponse(std::unique_ptr<container::v1::ContainerResponse>&& response, Address&& rest,
                                 std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<HitchhikerService> service_;
};

} // namespace connector::hitchhiker::v1
