#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/us/Bundle.h"
#include "platform/us/InterfaceMap.h"
#include "platform/us/LDAPFilter.h"
#include "platform/us/ServiceEvent.h"
#include "platform/us/detail/PropertyMap.h"

namespace us::detail {

class Core;
class TrackerSession;

/// What the framework knows of a bundle. Lives as long as the core. What is not const is guarded by the core's mutex.
struct BundleRecord
{
    const long id;
    const std::string name;
    const std::string location;
    const PropertyMap properties;

    Bundle::State state = Bundle::STATE_INSTALLED;
    BundleContext* context = nullptr; ///< the present one; the core's
    std::weak_ptr<Bundle> handle;
    std::thread::id changer; ///< the thread that starts or stops it at the moment
};

/// A service, registered or gone. Handles share it, and through it the core.
struct ServiceRecord
{
    enum class State
    {
        kRegistered,
        kUnregistering,
        kUnregistered
    };

    const std::shared_ptr<Core> core;
    const long id;
    const std::vector<std::string> interfaces;
    const BundleContext* const ownerContext;
    const BundleRecord& owner;

    // Guarded by the core's mutex. The objects are let go at unregistration, after the mutex is released.
    State state = State::kRegistered;
    PropertyMapPtr properties;
    int ranking = 0;
    InterfaceMapConstPtr objects;
    std::map<const BundleContext*, int> uses;

    bool offers(const std::string& interfaceId) const;
};
using ServiceRecordPtr = std::shared_ptr<ServiceRecord>;

/// One use of a service by a context, from construction to destruction. Holds the service's objects.
class ServiceUse
{
public:
    /// By Core::use only, which counts it.
    ServiceUse(ServiceRecordPtr record, const BundleContext* context, InterfaceMapConstPtr objects);
    ~ServiceUse();
    ServiceUse(const ServiceUse&) = delete;
    ServiceUse& operator=(const ServiceUse&) = delete;

    const InterfaceMap& objects() const noexcept { return *objects_; }

private:
    const ServiceRecordPtr record_;
    const BundleContext* const context_;
    const InterfaceMapConstPtr objects_;
};
using ServiceUsePtr = std::shared_ptr<ServiceUse>;

/// The registry of one framework. All handles share it, so it outlives the framework and every context.
///
/// One mutex guards everything. No function calls out (listeners, trackers, destructors of what others gave us) with it
/// held; trackers and handles may call in with their own mutex held, never the other way round.
class Core : public std::enable_shared_from_this<Core>
{
public:
    explicit Core(PropertyMap configuration);
    ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    // Bundles
    BundleRecord& system() noexcept { return system_; }
    const PropertyMap& configuration() const noexcept { return system_.properties; }
    void attach(BundleRecord& bundle, const std::shared_ptr<Bundle>& handle);
    void start(BundleRecord& bundle);
    void stop(BundleRecord& bundle);
    Bundle::State state(const BundleRecord& bundle) const;
    BundleContext* context(const BundleRecord& bundle) const;
    std::vector<std::shared_ptr<Bundle>> bundles(const BundleContext& caller) const;
    void requireValid(const BundleContext& context) const;

    // Providers. SetProperties and unregister throw std::logic_error when the service is gone.
    ServiceRecordPtr registerService(const BundleContext& context, const InterfaceMapConstPtr& objects,
                                     const ServiceProperties& properties);
    void setProperties(const ServiceRecordPtr& record, const ServiceProperties& properties);
    void unregister(const ServiceRecordPtr& record);

    // Consumers
    /// Best first.
    std::vector<ServiceRecordPtr> find(const BundleContext& context, const std::string& interfaceId,
                                       const std::optional<LDAPFilter>& filter) const;
    /// Null when the service is gone or the context dead.
    ServiceUsePtr use(const ServiceRecordPtr& record, const BundleContext& context);
    void endUse(ServiceRecord& record, const BundleContext* context) noexcept;
    bool isPresent(const ServiceRecord& record) const;
    /// Registered, not about to go, and matching.
    bool isRegistered(const ServiceRecord& record, const std::optional<LDAPFilter>& filter) const;
    PropertyMapPtr properties(const ServiceRecord& record) const;
    int ranking(const ServiceRecord& record) const;
    std::shared_ptr<Bundle> owner(const ServiceRecord& record) const;
    std::vector<std::shared_ptr<Bundle>> users(const ServiceRecord& record) const;
    std::vector<ServiceRecordPtr> servicesOf(const BundleRecord& bundle) const;
    std::vector<ServiceRecordPtr> usedBy(const BundleRecord& bundle) const;

    // Listeners
    struct Listener
    {
        const long id;
        const BundleContext* const context;
        const std::string methodKey; ///< empty for plain functions
        const std::optional<LDAPFilter> filter;
        const ServiceListener call;
        std::atomic<bool> active = true;
    };
    long addListener(const BundleContext& context, ServiceListener call, std::optional<LDAPFilter> filter,
                     std::string methodKey);
    void removeListeners(const BundleContext& context, const std::function<bool(const Listener&)>& which);

    // Trackers
    /// From here on the session hears of every change. Returns the services present at this moment.
    std::vector<ServiceRecordPtr> addTracker(const BundleContext& context, std::shared_ptr<TrackerSession> session);
    void removeTracker(const TrackerSession& session);

    void dump(std::ostream& out) const;

private:
    using ListenerPtr = std::shared_ptr<Listener>;
    using SessionPtr = std::shared_ptr<TrackerSession>;
    class StateChange;

    struct Audience
    {
        std::vector<SessionPtr> trackers;
        std::vector<ListenerPtr> listeners;
    };

    BundleRecord& newBundle(long id, std::string name, std::string location, const PropertyMap& properties);
    bool tryUnregister(const ServiceRecordPtr& record);
    InterfaceMapConstPtr finish(ServiceRecord& record);
    void unregisterAll(const BundleContext& context);
    void retire(BundleContext& context);
    void tell(ServiceEvent::Type type, const ServiceRecordPtr& record, const PropertyMapPtr& before,
              const PropertyMapPtr& now, const Audience& audience) const;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<BundleRecord>> bundles_;
    BundleRecord& system_;
    std::vector<std::unique_ptr<BundleContext>> contexts_; ///< all there ever were
    std::map<long, ServiceRecordPtr> services_;
    Audience audience_;
};

} // namespace us::detail
