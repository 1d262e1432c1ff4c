#include "connector/shadow_files/ShadowServiceProvider.h"

#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"

namespace connector::shadow_files::v1 {

using container::v1::ContainerRequest;
using container::v1::ContainerResponse;

namespace {

/// Folders that are on the path while this lives.
class PathScope final : public container::v1::ContainerScope
{
public:
    PathScope(std::shared_ptr<ShadowService> service, ShadowService::Folders folders)
        : service_(std::move(service)), folders_(std::move(folders))
    {}
    ~PathScope() override { service_->removeFromPath(folders_); }
    PathScope(const PathScope&) = delete;
    PathScope& operator=(const PathScope&) = delete;

private:
    const std::shared_ptr<ShadowService> service_;
    const ShadowService::Folders folders_;
};

} // namespace

MessageFuture LoadClientTypeFile::deliverTo(std::shared_ptr<ShadowServiceProvider> provider, std::unique_ptr<Message>&&,
                                            Address&&, std::shared_ptr<Context>&&)
{
    return makeReadyFuture<std::unique_ptr<Message>>(
        std::make_unique<LoadClientTypeFileResponse>(provider->loadClientTypeFile(*this)));
}

MessageFuture GetBehavior::deliverTo(std::shared_ptr<ShadowServiceProvider> provider, std::unique_ptr<Message>&&,
                                     Address&&, std::shared_ptr<Context>&& context)
{
    return makeReadyFuture<std::unique_ptr<Message>>(
        std::make_unique<GetBehaviorResponse>(provider->getBehavior(*this, *context)));
}

LoadClientTypeFileResponse ShadowServiceProviderImpl::loadClientTypeFile(const LoadClientTypeFile& request)
{
    return LoadClientTypeFileResponse(service_->loadClientTypeFile(request.path));
}

GetBehaviorResponse ShadowServiceProviderImpl::getBehavior(const GetBehavior& request, const Context& context)
{
    const auto& clientType = request.clientType.empty() ? context.clientType() : request.clientType;
    return GetBehaviorResponse(service_->behavior(clientType, request.name));
}

MessageFuture ShadowContainerServiceProvider::deliver(std::unique_ptr<Message>&& message, Address&& address,
                                                      std::shared_ptr<Context>&& context)
{
    const bool single = !dynamic_cast<ServiceMessage<ContainerServiceProvider>*>(message.get());
    if (single && isRunning() && !address.empty())
        return context->connector()->handle(std::move(message), std::move(address), std::shared_ptr<Context>(context));
    return ContainerServiceProvider::deliver(std::move(message), std::move(address), std::move(context));
}

MessageFuture ShadowContainerServiceProvider::handleRequest(std::unique_ptr<ContainerRequest>&& request, Address&& rest,
                                                            std::shared_ptr<Context>&& context)
{
    const auto& clientType = request->clientType.empty() ? context->clientType() : request->clientType;
    if (service_->requiresPath(clientType)) {
        try {
            request->scopes.push_back(std::make_shared<PathScope>(service_, service_->addToPath(clientType)));
        } catch (const std::exception& error) {
            const ServiceFault busy("busy", std::string("The client type's folders cannot be added: ") + error.what());
            return makeReadyFuture<std::unique_ptr<Message>>(
                refuseEach(std::move(request), std::make_exception_ptr(busy)));
        }
    }
    if (rest.empty())
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(request));
    return context->connector()->handle(std::move(request), std::move(rest), std::shared_ptr<Context>(context));
}

MessageFuture ShadowContainerServiceProvider::handleResponse(std::unique_ptr<ContainerResponse>&& response,
                                                             Address&& rest, std::shared_ptr<Context>&& context)
{
    std::erase_if(response->scopes,
                  [](const auto& scope) { return dynamic_cast<const PathScope*>(scope.get()) != nullptr; });
    return ContainerServiceProvider::handleResponse(std::move(response), std::move(rest), std::move(context));
}

} // namespace connector::shadow_files::v1
