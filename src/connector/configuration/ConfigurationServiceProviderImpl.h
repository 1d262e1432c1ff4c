#pragma once

#include <memory>

#include "connector/configuration/ConfigurationServiceProvider.h"

namespace connector::configuration {

class CONNECTOR_API ConfigurationServiceProviderImpl final : public ConfigurationServiceProvider
{
public:
    explicit ConfigurationServiceProviderImpl(std::shared_ptr<Configuration> configuration);
    ~ConfigurationServiceProviderImpl() override;

    MessageFuture getConfiguration(const GetConfiguration& request) override;
    MessageFuture setConfiguration(const SetConfiguration& request) override;

private:
    MessageFuture answer(const std::string& name) const;

    const std::shared_ptr<Configuration> configuration_;
};

} // namespace connector::configuration
