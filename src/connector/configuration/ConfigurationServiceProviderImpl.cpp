#include "connector/configuration/ConfigurationServiceProviderImpl.h"

#include <exception>
#include <stdexcept>
#include <utility>

namespace connector::configuration {

ConfigurationServiceProviderImpl::ConfigurationServiceProviderImpl(std::shared_ptr<Configuration> configuration)
    : configuration_(std::move(configuration))
{
    if (!configuration_)
        throw std::invalid_argument("The configuration service needs the configuration.");
}

ConfigurationServiceProviderImpl::~ConfigurationServiceProviderImpl() = default;

MessageFuture ConfigurationServiceProviderImpl::getConfiguration(const GetConfiguration& request)
{
    try {
        return answer(request.name);
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

MessageFuture ConfigurationServiceProviderImpl::setConfiguration(const SetConfiguration& request)
{
    try {
        if (request.name.starts_with("security."))
            throw ConfigurationError("The key " + request.name + " cannot be set by a message.");
        configuration_->set(request.name, request.value);
        return answer(request.name);
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

MessageFuture ConfigurationServiceProviderImpl::answer(const std::string& name) const
{
    auto settings = configuration_->list();
    if (!name.empty()) {
        std::erase_if(settings, [&](const Setting& setting) { return setting.name != name; });
        if (settings.empty())
            throw ConfigurationError("There is no configuration key \"" + name + "\".");
    }
    return makeReadyFuture<std::unique_ptr<Message>>(std::make_unique<ConfigurationValues>(std::move(settings)));
}

} // namespace connector::configuration
