#include "platform/us/detail/Core.h"

#include <algorithm>
#include <chrono>
#include <sstream>
#include <stdexcept>

#include "platform/us/BundleContext.h"
#include "platform/us/Exceptions.h"
#include "platform/us/detail/Report.h"
#include "platform/us/detail/TrackerSession.h"

namespace us::detail {

namespace {

constexpr std::chrono::seconds kPatience(10);

/// One counter for all frameworks: a token used on another one removes nothing.
long nextListenerId()
{
    static std::atomic<long> last = 0;
    return ++last;
}

PropertyMap bundleProperties(PropertyMap properties, long id, const std::string& location)
{
    properties["bundle.id"] = id;
    properties["bundle.location"] = location;
    return properties;
}

} // namespace

/// Makes one thread the only one that changes a bundle's state, without a mutex held meanwhile.
class Core::StateChange
{
public:
    StateChange(Core& core, BundleRecord& bundle) : core_(core), bundle_(bundle)
    {
        std::unique_lock lock(core.mutex_);
        if (bundle.changer == std::this_thread::get_id())
            throw std::logic_error("Bundle " + bundle.name +
                                   " is being started or stopped; what runs within that cannot change its state");
        if (!core.changed_.wait_for(lock, kPatience, [&] { return bundle.changer == std::thread::id(); })) {
            std::ostringstream text;
            text << "Bundle " << bundle.name << " has been starting or stopping for " << kPatience.count()
                 << " seconds on thread " << bundle.changer;
            throw std::runtime_error(text.str());
        }
        bundle.changer = std::this_thread::get_id();
    }

    ~StateChange()
    {
        const std::lock_guard lock(core_.mutex_);
        bundle_.changer = std::thread::id();
        core_.changed_.notify_all();
    }

    StateChange(const StateChange&) = delete;
    StateChange& operator=(const StateChange&) = delete;

private:
    Core& core_;
    BundleRecord& bundle_;
};

Core::Core(PropertyMap configuration) : system_(newBundle(0, "system_bundle", "System Bundle", configuration)) {}

Core::~Core() = default;

BundleRecord& Core::newBundle(long id, std::string name, std::string location, const PropertyMap& properties)
{
    PropertyMap all = bundleProperties(properties, id, location);
    bundles_.push_back(std::unique_ptr<BundleRecord>(
        new BundleRecord{id, std::move(name), std::move(location), std::move(all), {}, {}, {}, {}}));
    bundles_.back()->state = Bundle::STATE_INSTALLED;
    return *bundles_.back();
}

void Core::attach(BundleRecord& bundle, const std::shared_ptr<Bundle>& handle)
{
    const std::lock_guard lock(mutex_);
    bundle.handle = handle;
}

void Core::start(BundleRecord& bundle)
{
    const StateChange change(*this, bundle);
    const std::lock_guard lock(mutex_);
    if (bundle.state == Bundle::STATE_ACTIVE)
        return;
    contexts_.push_back(std::make_unique<BundleContext>(BundleContext::Key(), *this, bundle));
    bundle.context = contexts_.back().get();
    bundle.state = Bundle::STATE_ACTIVE;
}

void Core::stop(BundleRecord& bundle)
{
    const StateChange change(*this, bundle);
    {
        const std::lock_guard lock(mutex_);
        if (bundle.state != Bundle::STATE_ACTIVE)
            return;
        bundle.state = Bundle::STATE_STOPPING;
    }
    unregisterAll(*bundle.context); // while listeners can still act on it
    retire(*bundle.context);
    const std::lock_guard lock(mutex_);
    bundle.context = nullptr;
    bundle.state = Bundle::STATE_RESOLVED;
}

/// Ends everything that belongs to the context. What a listener registers meanwhile goes too.
void Core::retire(BundleContext& context)
{
    {
        const std::lock_guard lock(mutex_);
        context.valid_ = false;
    }
    unregisterAll(context);

    // All that may die here outlives the lock.
    Audience gone;
    std::vector<ServiceRecordPtr> ended;
    std::vector<InterfaceMapConstPtr> objects;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [id, record] : services_) {
            record->uses.erase(&context);
            if (record->ownerContext == &context)
                ended.push_back(record);
        }
        // Whoever else is unregistering one of these has announced it, and finds nothing left to do.
        for (const ServiceRecordPtr& record : ended)
            objects.push_back(finish(*record));
        std::erase_if(audience_.listeners, [&](ListenerPtr& listener) {
            if (listener->context != &context)
                return false;
            gone.listeners.push_back(std::move(listener));
            return true;
        });
        std::erase_if(audience_.trackers, [&](SessionPtr& session) {
            if (&session->context() != &context)
                return false;
            gone.trackers.push_back(std::move(session));
            return true;
        });
    }
    for (const ListenerPtr& listener : gone.listeners)
        listener->active = false;
    for (const SessionPtr& session : gone.trackers)
        session->close();
}

Bundle::State Core::state(const BundleRecord& bundle) const
{
    const std::lock_guard lock(mutex_);
    return bundle.state;
}

BundleContext* Core::context(const BundleRecord& bundle) const
{
    const std::lock_guard lock(mutex_);
    return bundle.context;
}

std::vector<std::shared_ptr<Bundle>> Core::bundles(const BundleContext& caller) const
{
    std::vector<std::shared_ptr<Bundle>> result;
    const std::lock_guard lock(mutex_);
    if (!caller.valid_)
        throw InvalidContextException();
    for (const auto& bundle : bundles_)
        if (auto handle = bundle->handle.lock())
            result.push_back(std::move(handle));
    return result;
}

void Core::requireValid(const BundleContext& context) const
{
    const std::lock_guard lock(mutex_);
    if (!context.valid_)
        throw InvalidContextException();
}

long Core::addListener(const BundleContext& context, ServiceListener call, std::optional<LDAPFilter> filter,
                       std::string methodKey)
{
    auto listener = ListenerPtr(
        new Listener{nextListenerId(), &context, std::move(methodKey), std::move(filter), std::move(call), true});
    ListenerPtr replaced; // outlives the lock
    const std::lock_guard lock(mutex_);
    if (!context.valid_)
        throw InvalidContextException();
    auto& listeners = audience_.listeners;
    const auto same = std::find_if(listeners.begin(), listeners.end(), [&](const ListenerPtr& other) {
        return !listener->methodKey.empty() && other->methodKey == listener->methodKey && other->context == &context;
    });
    const long id = listener->id;
    if (same == listeners.end()) {
        listeners.push_back(std::move(listener));
        return id;
    }
    replaced = std::exchange(*same, std::move(listener));
    replaced->active = false;
    return id;
}

void Core::removeListeners(const BundleContext& context, const std::function<bool(const Listener&)>& which)
{
    std::vector<ListenerPtr> gone; // outlives the lock
    const std::lock_guard lock(mutex_);
    if (!context.valid_)
        throw InvalidContextException();
    std::erase_if(audience_.listeners, [&](ListenerPtr& listener) {
        if (!which(*listener))
            return false;
        listener->active = false;
        gone.push_back(std::move(listener));
        return true;
    });
}

std::vector<ServiceRecordPtr> Core::addTracker(const BundleContext& context, std::shared_ptr<TrackerSession> session)
{
    std::vector<ServiceRecordPtr> present;
    const std::lock_guard lock(mutex_);
    if (!context.valid_)
        throw InvalidContextException();
    audience_.trackers.push_back(std::move(session));
    for (const auto& [id, record] : services_)
        present.push_back(record);
    return present;
}

void Core::removeTracker(const TrackerSession& session)
{
    std::vector<SessionPtr> gone; // outlives the lock
    const std::lock_guard lock(mutex_);
    std::erase_if(audience_.trackers, [&](SessionPtr& other) {
        if (other.get() != &session)
            return false;
        gone.push_back(std::move(other));
        return true;
    });
}

/// Trackers first: a listener that looks into its tracker finds it up to date.
void Core::tell(ServiceEvent::Type type, const ServiceRecordPtr& record, const PropertyMapPtr& before,
                const PropertyMapPtr& now, const Audience& audience) const
{
    for (const SessionPtr& session : audience.trackers) {
        TrackerSession::Released released;
        session->look(record, type == ServiceEvent::MODIFIED, released);
    }
    for (const ListenerPtr& listener : audience.listeners) {
        ServiceEvent::Type told = type;
        if (listener->filter && !listener->filter->Match(*now)) {
            if (type != ServiceEvent::MODIFIED || !listener->filter->Match(*before))
                continue;
            told = ServiceEvent::MODIFIED_ENDMATCH;
        }
        if (!listener->active)
            continue;
        const ServiceEvent event(told, ServiceReferenceU(record));
        const auto failed = [&](const char* what) {
            std::ostringstream text;
            text << "A service listener failed on " << event << ": " << what;
            report(text.str());
        };
        try {
            listener->call(event);
        } catch (const std::exception& error) {
            failed(error.what());
        } catch (...) {
            failed("an exception of unknown type");
        }
    }
}

} // namespace us::detail
