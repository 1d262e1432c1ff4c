#include "connector/configuration/ConfigurationServiceProvider.h"

namespace connector::configuration {

GetConfiguration::~GetConfiguration() = default;
SetConfiguration::~SetConfiguration() = default;
ConfigurationValues::~ConfigurationValues() = default;

MessageFuture GetConfiguration::deliverTo(std::shared_ptr<ConfigurationServiceProvider> provider,
                                          std::unique_ptr<Message>&&, Address&&, std::shared_ptr<Context>&&)
{
    return provider->getConfiguration(*this);
}

MessageFuture SetConfiguration::deliverTo(std::shared_ptr<ConfigurationServiceProvider> provider,
                                          std::unique_ptr<Message>&&, Address&&, std::shared_ptr<Context>&&)
{
    return provider->setConfiguration(*this);
}

} // namespace connector::configuration
