#include "connector/information/InformationMessages.h"

#include "connector/information/InformationServiceProvider.h"

namespace connector::information::v1 {
namespace {

/// A message's answer, or the failure of a future where the provider throws.
template <class Ask>
MessageFuture answered(Ask ask)
{
    try {
        return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<decltype(ask())>(ask()));
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

} // namespace

MessageFuture GetCurrentClientProperties::deliverTo(std::shared_ptr<InformationServiceProvider> provider,
                                                    std::unique_ptr<Message>&&, Address&&,
                                                    std::shared_ptr<Context>&& context)
{
    return answered([&] { return provider->getCurrentClientProperties(*context); });
}

MessageFuture GetUserHomeDir::deliverTo(std::shared_ptr<InformationServiceProvider> provider,
                                        std::unique_ptr<Message>&&, Address&&, std::shared_ptr<Context>&& context)
{
    return answered([&] { return provider->getUserHomeDir(*context); });
}

MessageFuture SetUserHomeDir::deliverTo(std::shared_ptr<InformationServiceProvider> provider,
                                        std::unique_ptr<Message>&&, Address&&, std::shared_ptr<Context>&& context)
{
    return answered([&] { return provider->setUserHomeDir(*this, *context); });
}

MessageFuture ServiceRegistryRequest::deliverTo(std::shared_ptr<InformationServiceProvider> provider,
                                                std::unique_ptr<Message>&&, Address&&,
                                                std::shared_ptr<Context>&& context)
{
    return answered([&] { return provider->listServices(*context); });
}

MessageFuture EnabledFeatures::deliverTo(std::shared_ptr<InformationServiceProvider> provider,
                                         std::unique_ptr<Message>&&, Address&&, std::shared_ptr<Context>&& context)
{
    return answered([&] { return provider->enabledFeatures(*context); });
}

} // namespace connector::information::v1
