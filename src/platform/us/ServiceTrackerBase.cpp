#include "platform/us/ServiceTrackerBase.h"

#include <stdexcept>
#include <utility>

#include "platform/us/BundleContext.h"
#include "platform/us/Exceptions.h"
#include "platform/us/detail/TrackerSession.h"

namespace us {

namespace {

/// Longer than a program runs, and short enough to be added to a point in time.
constexpr std::chrono::hours kForever(24 * 365 * 100);

BundleContext& checked(BundleContext* context)
{
    if (!context)
        throw std::invalid_argument("The bundle context cannot be null.");
    return *context;
}

std::unique_ptr<const detail::TrackedSet> wantedSet(detail::TrackedSet set)
{
    if (set.interfaceId.empty())
        throw std::invalid_argument("A service tracker needs an interface id");
    return std::make_unique<const detail::TrackedSet>(std::move(set));
}

} // namespace

ServiceTrackerBase::ServiceTrackerBase(BundleContext* context, std::string interfaceId)
    : core_(checked(context).core_.shared_from_this()), context_(context),
      wanted_(wantedSet({std::move(interfaceId), std::nullopt, nullptr}))
{}

ServiceTrackerBase::ServiceTrackerBase(BundleContext* context, std::string interfaceId, const LDAPFilter& filter)
    : core_(checked(context).core_.shared_from_this()), context_(context),
      wanted_(wantedSet({std::move(interfaceId), filter, nullptr}))
{}

ServiceTrackerBase::ServiceTrackerBase(BundleContext* context, std::string interfaceId,
                                       const ServiceReferenceBase& reference)
    : core_(checked(context).core_.shared_from_this()), context_(context),
      wanted_(wantedSet({std::move(interfaceId), std::nullopt, reference.record_}))
{
    if (!reference.record_)
        throw std::invalid_argument("A service tracker cannot track a reference that refers to no service");
}

ServiceTrackerBase::~ServiceTrackerBase() { close(); }

void ServiceTrackerBase::open()
{
    detail::TrackerSession::Released released; // outlives the lock
    const std::lock_guard lock(mutex_);
    if (session_ && session_->isOpen())
        return;
    auto session = std::make_shared<detail::TrackerSession>(core_, *context_, *wanted_);
    for (const auto& record : core_->addTracker(*context_, session))
        session->look(record, false, released);
    session_ = std::move(session);
}

void ServiceTrackerBase::close() noexcept
{
    std::shared_ptr<detail::TrackerSession> session;
    {
        const std::lock_guard lock(mutex_);
        session.swap(session_);
    }
    if (session)
        session->close();
}

std::shared_ptr<detail::TrackerSession> ServiceTrackerBase::session() const
{
    const std::lock_guard lock(mutex_);
    return session_;
}

std::size_t ServiceTrackerBase::size() const
{
    const auto present = session();
    return present ? present->size() : 0;
}

int ServiceTrackerBase::trackingCount() const
{
    const auto present = session();
    return present ? present->trackingCount() : -1;
}

ServiceReferenceU ServiceTrackerBase::reference() const
{
    const auto all = references();
    if (all.empty())
        throw ServiceException("No service is being tracked");
    return all.front();
}

std::vector<ServiceReferenceU> ServiceTrackerBase::references() const
{
    std::vector<ServiceReferenceU> result;
    if (const auto present = session())
        for (auto& record : present->records())
            result.emplace_back(std::move(record));
    return result;
}

std::shared_ptr<void> ServiceTrackerBase::service() const
{
    const auto present = session();
    return present ? present->service() : nullptr;
}

std::shared_ptr<void> ServiceTrackerBase::service(const ServiceReferenceBase& reference) const
{
    const auto present = session();
    return present ? present->service(reference.record_) : nullptr;
}

std::shared_ptr<void> ServiceTrackerBase::waitForService(std::chrono::milliseconds limit) const
{
    if (limit < std::chrono::milliseconds::zero())
        throw std::invalid_argument("Cannot wait " + std::to_string(limit.count()) + " ms for a service");
    const auto present = session();
    if (!present)
        return nullptr;
    std::optional<std::chrono::steady_clock::time_point> deadline;
    if (limit > std::chrono::milliseconds::zero() && limit < kForever)
        deadline = std::chrono::steady_clock::now() + limit;
    // A service that comes may be gone before it is taken: wait again.
    for (;;) {
        present->wait(deadline);
        auto found = present->service();
        if (found || !present->isOpen() || (deadline && std::chrono::steady_clock::now() >= *deadline))
            return found;
    }
}

} // namespace us
