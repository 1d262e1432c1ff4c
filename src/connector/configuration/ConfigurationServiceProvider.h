#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "connector/configuration/Configuration.h"
#include "connector/core/ServiceProvider.h"

namespace connector::configuration {

struct GetConfiguration;
struct SetConfiguration;

/// Serves the configuration to messages. Answers are ConfigurationValues; failures are ConfigurationErrors.
class CONNECTOR_API ConfigurationServiceProvider : public ServiceProviderAPI<ConfigurationServiceProvider>
{
public:
    virtual MessageFuture getConfiguration(const GetConfiguration& request) = 0;
    /// Keys below "security." are refused: they cannot be set from outside the process.
    virtual MessageFuture setConfiguration(const SetConfiguration& request) = 0;
};

/// Asks for one key, or for all when the name is empty.
struct CONNECTOR_API GetConfiguration final : ServiceMessage<ConfigurationServiceProvider>
{
    explicit GetConfiguration(std::string key = {}) : name(std::move(key)) {}
    ~GetConfiguration() override;
    MessageFuture deliverTo(std::shared_ptr<ConfigurationServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;

    std::string name;
};

/// Sets one key for the life of the process; the answer holds its value.
struct CONNECTOR_API SetConfiguration final : ServiceMessage<ConfigurationServiceProvider>
{
    SetConfiguration(std::string key, Value newValue) : name(std::move(key)), value(std::move(newValue)) {}
    ~SetConfiguration() override;
    MessageFuture deliverTo(std::shared_ptr<ConfigurationServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;

    std::string name;
    Value value;
};

/// Keys as they stand, in name order.
struct CONNECTOR_API ConfigurationValues final : Message
{
    explicit ConfigurationValues(std::vector<Setting> values) : settings(std::move(values)) {}
    ~ConfigurationValues() override;

    std::vector<Setting> settings;
};

} // namespace connector::configuration
