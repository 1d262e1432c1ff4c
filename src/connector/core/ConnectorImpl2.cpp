#include "connector/core/ConnectorImpl2.h"

#include <exception>
#include <utility>

#include "connector/common/Log.h"

namespace connector {

namespace {

/// For failures that nobody is there to hear of.
void logFailure(const std::string& what)
{
    try {
        throw;
    } catch (const std::exception& error) {
        common::log("connector.core", common::LogLevel::error, what + ": " + error.what());
    } catch (...) {
        common::log("connector.core", common::LogLevel::error, what + " with something that is no std::exception");
    }
}

} // namespace

/// Makes one thread the only one that starts or stops a provider, without a lock held meanwhile. What the provider does
/// within, on the same thread, belongs to it.
class ConnectorImpl2::Change
{
public:
    /// Waits until no other thread is at it.
    Change(ConnectorImpl2& registry, const ProviderPtr& provider) : registry_(registry), provider_(provider)
    {
        std::unique_lock lock(registry_.mutex_);
        registry_.changed_.wait(lock, [this] { return !isOthers(); });
        begin();
    }

    /// Where another thread is at it, leaves the step to that one, which may well be waiting for this one.
    Change(ConnectorImpl2& registry, const ProviderPtr& provider, Step step) : registry_(registry), provider_(provider)
    {
        std::unique_lock lock(registry_.mutex_);
        if (isOthers())
            use().next = step;
        else
            begin();
    }

    ~Change()
    {
        if (!isMine_ || nested_)
            return;
        std::unique_lock lock(registry_.mutex_);
        for (Step step; (step = std::exchange(use().next, Step::none)) != Step::none;) {
            lock.unlock();
            takeQuietly(step);
            lock.lock();
        }
        use().changer = {};
        if (use().names == 0)
            registry_.uses_.erase(provider_.get());
        registry_.changed_.notify_all();
    }

    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    bool isMine() const noexcept { return isMine_; }

private:
    Use& use() const { return registry_.uses_[provider_.get()]; }
    bool isOthers() const
    {
        const auto changer = use().changer;
        return changer != std::thread::id() && changer != std::this_thread::get_id();
    }
    void begin()
    {
        const auto self = std::this_thread::get_id();
        nested_ = std::exchange(use().changer, self) == self;
        isMine_ = true;
    }
    void takeQuietly(Step step) const noexcept
    {
        try {
            registry_.take(step, provider_);
        } catch (...) {
            logFailure("A provider failed to start or stop for another thread");
        }
    }

    ConnectorImpl2& registry_;
    const ProviderPtr provider_;
    bool isMine_ = false;
    bool nested_ = false;
};

UnknownServiceProvider::UnknownServiceProvider(const std::string& name)
    : std::runtime_error("No service provider is registered as \"" + name + "\"."), name_(name)
{}

UnknownServiceProvider::~UnknownServiceProvider() = default;

ConnectorImpl2::ConnectorImpl2(const std::string& name) : name_(name) {}

ConnectorImpl2::~ConnectorImpl2()
{
    for (auto& [name, provider] : std::exchange(providers_, {})) {
        try {
            provider->stop();
        } catch (...) {
            logFailure("\"" + name + "\" failed to stop at the end of the registry");
        }
    }
}

ConnectorImpl2::Providers ConnectorImpl2::providers() const
{
    std::shared_lock lock(mutex_);
    return providers_;
}

void ConnectorImpl2::start()
{
    for (auto& [name, provider] : providers())
        take(Step::start, provider);
}

void ConnectorImpl2::stop()
{
    for (auto& [name, provider] : providers())
        take(Step::stop, provider);
}

void ConnectorImpl2::claim(const ProviderPtr& provider)
{
    std::unique_lock lock(mutex_);
    ++uses_[provider.get()].names;
}

void ConnectorImpl2::unclaim(const ProviderPtr& provider)
{
    std::unique_lock lock(mutex_);
    const auto use = uses_.find(provider.get());
    if (--use->second.names == 0 && use->second.changer == std::thread::id())
        uses_.erase(use);
}

bool ConnectorImpl2::isUsed(const ProviderPtr& provider) const
{
    std::shared_lock lock(mutex_);
    const auto use = uses_.find(provider.get());
    return use != uses_.end() && use->second.names > 0;
}

/// Asks for names within the change: another thread may have given it one since, and relies on it.
void ConnectorImpl2::take(Step step, const ProviderPtr& provider)
{
    const Change change(*this, provider, step);
    if (!change.isMine())
        return;
    if (step == Step::stop || !isUsed(provider))
        provider->stop();
    else if (step == Step::start)
        provider->start();
}

/// Null when there is none, or when it goes on under another name.
ConnectorImpl2::ProviderPtr ConnectorImpl2::stopFormer(const std::string& name, const ProviderPtr& next)
{
    ProviderPtr former = find(name);
    if (!former || former == next)
        return nullptr;
    const Change change(*this, former);
    {
        std::shared_lock lock(mutex_);
        if (uses_.at(former.get()).names != 1)
            return nullptr;
    }
    former->stop();
    return former;
}

void ConnectorImpl2::restartFormer(const std::string& name, const ProviderPtr& former) noexcept
{
    try {
        const Change change(*this, former);
        if (isUsed(former))
            former->start();
    } catch (...) {
        logFailure("The former provider of \"" + name + "\" does not start again");
    }
}

void ConnectorImpl2::addServiceProvider(const std::string& name, std::shared_ptr<ServiceProvider> provider)
{
    if (name.empty())
        throw std::invalid_argument("A service provider needs a name.");
    if (!provider)
        throw std::invalid_argument("There is no service provider to register as \"" + name + "\".");

    claim(provider);
    ProviderPtr former;
    try {
        former = stopFormer(name, provider);
        const Change change(*this, provider);
        provider->start();
    } catch (...) {
        unclaim(provider);
        if (former)
            restartFormer(name, former);
        throw;
    }
    {
        std::unique_lock lock(mutex_);
        former = std::exchange(providers_[name], std::move(provider));
    }
    if (former) {
        unclaim(former);
        take(Step::stopIfUnused, former);
    }
}

void ConnectorImpl2::removeServiceProvider(const std::string& name)
{
    ProviderPtr provider;
    {
        std::unique_lock lock(mutex_);
        const auto found = providers_.find(name);
        if (found == providers_.end())
            return;
        provider = std::move(found->second);
        providers_.erase(found);
    }
    unclaim(provider);
    take(Step::stopIfUnused, provider);
}

std::set<std::string> ConnectorImpl2::listServiceProviders()
{
    std::set<std::string> names;
    std::shared_lock lock(mutex_);
    for (auto& [name, provider] : providers_)
        names.insert(name);
    return names;
}

ConnectorImpl2::ProviderPtr ConnectorImpl2::find(const std::string& name) const
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
