#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "connector/core/Connector.h"

namespace connector {

/// The registry of this process.
class CONNECTOR_API ConnectorImpl2 final : public Connector
{
public:
    explicit ConnectorImpl2(const std::string& name);
    /// Stops what is still registered; a provider that fails to is logged.
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
    using ProviderPtr = std::shared_ptr<ServiceProvider>;
    using Providers = std::map<std::string, ProviderPtr, std::less<>>;

    enum class Step
    {
        none,
        start, ///< if names lead to it
        stop,
        stopIfUnused ///< by names
    };

    /// How a provider stands: it is to run while names lead to it.
    struct Use
    {
        std::size_t names = 0;   ///< that lead to it or are about to
        std::thread::id changer; ///< the thread that starts or stops it at the moment
        Step next = Step::none;  ///< what another thread wanted meanwhile, for the changer to do
    };
    class Change;

    ProviderPtr find(const std::string& name) const;
    Providers providers() const;
    void claim(const ProviderPtr& provider);
    void unclaim(const ProviderPtr& provider);
    bool isUsed(const ProviderPtr& provider) const;
    void take(Step step, const ProviderPtr& provider);
    ProviderPtr stopFormer(const std::string& name, const ProviderPtr& next);
    void restartFormer(const std::string& name, const ProviderPtr& former) noexcept;

    const std::string name_;
    mutable std::shared_mutex mutex_; ///< never held while a provider is called
    Providers providers_;
    std::map<const ServiceProvider*, Use> uses_;
    std::condition_variable_any changed_; ///< a provider's changer is done
    std::shared_ptr<Context> processContext_;
};

} // namespace connector
