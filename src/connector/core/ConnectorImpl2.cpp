#include "connector/core/ConnectorImpl2.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace connector {

UnknownServiceProvider::UnknownServiceProvider(const std::string& name)
    : std::runtime_error("No service provider is registered as \"" + name + "\"."), name_(name)
{}

UnknownServiceProvider::~UnknownServiceProvider() = default;

ConnectorImpl2::ConnectorImpl2(const std::string& name) : name_(name) {}

ConnectorImpl2::~ConnectorImpl2()
{
    for (auto& [name, provider] : std::exchange(providers_, {}))
        provider->stop();
}

ConnectorImpl2::Providers ConnectorImpl2::providers() const
{
    std::shared_lock lock(mutex_);
    return providers_;
}

void ConnectorImpl2::start()
{
    for (auto& [name, provider] : providers())
        provider->start();
}

void ConnectorImpl2::stop()
{
    for (auto& [name, provider] : providers())
        provider->stop();
}

bool ConnectorImpl2::isRegistered(const std::shared_ptr<ServiceProvider>& provider) const
{
    std::shared_lock lock(mutex_);
    return std::any_of(providers_.begin(), providers_.end(), [&](auto& entry) { return entry.second == provider; });
}

void ConnectorImpl2::addServiceProvider(const std::string& name, std::shared_ptr<ServiceProvider> provider)
{
    if (name.empty())
        throw std::invalid_argument("A service provider needs a name.");
    if (!provider)
        throw std::invalid_argument("There is no service provider to register as \"" + name + "\".");

    provider->start();
    std::shared_ptr<ServiceProvider> previous;
    {
        std::unique_lock lock(mutex_);
        previous = std::exchange(providers_[name], std::move(provider));
    }
    if (previous && !isRegistered(previous))
        previous->stop();
}

void ConnectorImpl2::removeServiceProvider(const std::string& name)
{
    std::shared_ptr<ServiceProvider> provider;
    {
        std::unique_lock lock(mutex_);
        const auto found = providers_.find(name);
        if (found == providers_.end())
            return;
        provider = std::move(found->second);
        providers_.erase(found);
    }
    if (!isRegistered(provider))
        provider->stop();
}

std::set<std::string> ConnectorImpl2::listServiceProviders()
{
    std::set<std::string> names;
    std::shared_lock lock(mutex_);
    for (auto& [name, provider] : providers_)
        names.insert(name);
    return names;
}

std::shared_ptr<ServiceProvider> ConnectorImpl2::find(const std::string& name) const
{
    std::shared_lock lock(mutex_);
    const auto found = providers_.find(name);
    return found == providers_.end() ? nullptr : found->second;
}

MessageFuture ConnectorImpl2::handle(std::unique_ptr<Message>&& message, Address&& target,
                                     std::shared_ptr<Context>&& context)
{
    try {
        while (!target.empty()) {
            const std::string& name = target.front(); // stays where it is
            target.popFront();
            const bool optional = name.starts_with('?');
            if (auto provider = find(optional ? name.substr(1) : name))
                return provider->deliver(std::move(message), std::move(target), std::move(context));
            if (!optional)
                throw UnknownServiceProvider(name);
        }
        throw std::invalid_argument("The message was sent to an empty address.");
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

std::shared_ptr<Context> ConnectorImpl2::newContext() { return std::make_shared<Context>(weak_from_this()); }

std::shared_ptr<Context> ConnectorImpl2::setProcessContext(std::shared_ptr<Context> context)
{
    std::unique_lock lock(mutex_);
    return std::exchange(processContext_, std::move(context));
}

std::shared_ptr<Connector> ConnectorImpl2::getPtr() { return shared_from_this(); }

bool ConnectorImpl2::isServiceProviderRunning(const std::string& name) const
{
    const auto provider = find(name);
    return provider && provider->isRunning();
}

} // namespace connector
