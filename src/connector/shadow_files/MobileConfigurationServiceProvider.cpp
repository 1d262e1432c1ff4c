#include "connector/shadow_files/MobileConfigurationServiceProvider.h"

#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"

namespace connector::shadow_files::v1 {
namespace {

template <class Request>
MessageFuture answered(Future<bool> done)
{
    return done.then([](Future<bool> told) -> std::unique_ptr<Message> {
        return std::make_unique<MobileConfigurationResponse<Request>>(told.get());
    });
}

} // namespace

MessageFuture SetBgColor::sendTo(MobileConfigurationService& service) const
{
    return answered<SetBgColor>(service.setBgColor(color));
}

MessageFuture ResetBgColor::sendTo(MobileConfigurationService& service) const
{
    return answered<ResetBgColor>(service.resetBgColor());
}

MessageFuture ChangeDefaultFigureColor::sendTo(MobileConfigurationService& service) const
{
    return answered<ChangeDefaultFigureColor>(service.changeDefaultFigureColor(color));
}

MessageFuture MobileConfigurationContainerServiceProvider::deliver(std::unique_ptr<Message>&& message,
                                                                   Address&& address,
                                                                   std::shared_ptr<Context>&& context)
{
    const auto* known = dynamic_cast<const MobileConfigurationMessage*>(message.get());
    if (known && isRunning() && address.empty())
        return known->sendTo(*service_);
    return ContainerServiceProvider::deliver(std::move(message), std::move(address), std::move(context));
}

MessageFuture
MobileConfigurationContainerServiceProvider::handleRequest(std::unique_ptr<container::v1::ContainerRequest>&& request,
                                                           Address&& rest, std::shared_ptr<Context>&& context)
{
    if (!rest.empty())
        return context->connector()->handle(std::move(request), std::move(rest), std::shared_ptr<Context>(context));
    return answerEach(std::move(request), [this](std::unique_ptr<Message> message) {
        const auto* known = dynamic_cast<const MobileConfigurationMessage*>(message.get());
        if (!known)
            throw ServiceFault("unknownType", "Only messages of the mobile configuration are taken here.");
        return known->sendTo(*service_);
    });
}

} // namespace connector::shadow_files::v1
