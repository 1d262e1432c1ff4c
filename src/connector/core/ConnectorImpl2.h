#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "connector/core/Connector.h"

namespace connector {

/// The registry of this process.
class CONNECTOR_API ConnectorImpl2 final : public Connector
{
public:
    explicit ConnectorImpl2(const std::string& name);
    /// Stops what is still registered.
    ~ConnectorImpl2() override;

    std::string getName() override { return name_; }
    void start() override;
    void stop() override;
    void addServiceProvider(const std::string& name, std::shared_ptr<ServiceProvider> provider) override;
    void removeServiceProvider(const std::string& name) override;
    std::set<std::string> listServiceProviders() override;
    MessageFuture handle(std::unique_ptr<Message>&& message, Address&& target,
                         std::shared_ptr<Context>&& context) override;
    std::shared_ptr<Context> newContext() override;
    std::shared_ptr<Context> setProcessContext(std::shared_ptr<Context> context) override;
    std::shared_ptr<Connector> getPtr() override;
    bool isServiceProviderRunning(const std::string& name) const override;

private:
    using Providers = std::map<std::string, std::shared_ptr<ServiceProvider>, std::less<>>;

    std::shared_ptr<ServiceProvider> find(const std::string& name) const;
    bool isRegistered(const std::shared_ptr<ServiceProvider>& provider) const;
    Providers providers() const;

    const std::string name_;
    mutable std::shared_mutex mutex_;
    Providers providers_;
    std::shared_ptr<Context> processContext_;
};

} // namespace connector
