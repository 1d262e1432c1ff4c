#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/us/ServiceProperties.h"
#include "platform/us/ServiceReference.h"

namespace us {

class BundleContext;
class Framework;

namespace detail {
class Core;
struct BundleRecord;
} // namespace detail

/// A part of the program that is started and stopped as one and owns the services, listeners and trackers made through
/// its context. Threads: any.
class VENDRA_PLATFORM_API Bundle : public std::enable_shared_from_this<Bundle>
{
public:
    enum State : unsigned
    {
        STATE_UNINSTALLED = 1,
        STATE_INSTALLED = 2,
        STATE_RESOLVED = 4,
        STATE_STARTING = 8,
        STATE_STOPPING = 16,
        STATE_ACTIVE = 32
    };

    virtual ~Bundle();
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    /// Unique in the framework, 0 for the framework itself; never reused.
    long GetBundleId() const noexcept;
    const std::string& GetName() const noexcept;
    const std::string& GetSymbolicName() const noexcept { return GetName(); }
    const std::string& GetLocation() const noexcept;

    State GetState() const;
    /// Active, or on the way there.
    bool IsStarted() const;
    /// Null unless starting, started or stopping. Owned by the framework; a new one at each start. After a stop every
    /// call on the old one throws InvalidContextException, as long as anything of the framework is alive.
    BundleContext* GetBundleContext() const;

    /// The bundle's own property, else the framework's, else an empty Any. Names are compared without regard to case.
    Any GetProperty(const std::string& key) const;
    std::vector<std::string> GetPropertyKeys() const;
    /// The bundle's own.
    ServiceProperties GetProperties() const;

    /// Services it offers, oldest first.
    std::vector<ServiceReferenceU> GetRegisteredServices() const;
    /// Services whose objects it holds, oldest first.
    std::vector<ServiceReferenceU> GetServicesInUse() const;

    /// Start and Stop do nothing when there is nothing to do. While another thread changes the state they wait, at most
    /// ten seconds, and then throw std::runtime_error; called by what runs within that change they throw
    /// std::logic_error.
    virtual void Start() = 0;
    virtual void Stop() = 0;
    virtual void Uninstall() = 0;

protected:
    Bundle(std::shared_ptr<detail::Core> core, detail::BundleRecord& record);

    detail::Core& core() const noexcept { return *core_; }
    detail::BundleRecord& record() const noexcept { return record_; }

private:
    friend VENDRA_PLATFORM_API void Dump(std::ostream& out, const Framework& framework);

    std::shared_ptr<detail::Core> core_;
    detail::BundleRecord& record_; ///< the core's
};

} // namespace us
