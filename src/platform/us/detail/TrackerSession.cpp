#include "platform/us/detail/TrackerSession.h"

#include <algorithm>

namespace us::detail {

TrackerSession::TrackerSession(std::shared_ptr<Core> core, const BundleContext& context, TrackedSet wanted)
    : core_(std::move(core)), context_(context), wanted_(std::move(wanted))
{}

bool TrackerSession::wants(const ServiceRecord& record) const
{
    if (wanted_.only ? wanted_.only.get() != &record : !record.offers(wanted_.interfaceId))
        return false;
    return core_->isRegistered(record, wanted_.filter);
}

void TrackerSession::look(const ServiceRecordPtr& record, bool changed, Released& released)
{
    const std::lock_guard lock(mutex_);
    if (!open_)
        return;
    const auto found = entries_.find(record->id);
    if (!wants(*record)) {
        if (found == entries_.end())
            return;
        released.push_back(std::move(found->second.use));
        entries_.erase(found);
        ++count_;
        return;
    }
    if (found != entries_.end()) {
        found->second.ranking = core_->ranking(*record);
        count_ += changed;
        return;
    }
    // Should the service begin to go between these two calls, its end is still to be announced to this session.
    if (ServiceUsePtr use = core_->use(record, context_)) {
        entries_.emplace(record->id, Entry{record, std::move(use), core_->ranking(*record)});
        ++count_;
        changed_.notify_all();
    }
}

void TrackerSession::close()
{
    std::map<long, Entry> released;
    {
        const std::lock_guard lock(mutex_);
        open_ = false;
        released.swap(entries_);
        changed_.notify_all();
    }
    core_->removeTracker(*this);
}

bool TrackerSession::isOpen() const
{
    const std::lock_guard lock(mutex_);
    return open_;
}

std::size_t TrackerSession::size() const
{
    const std::lock_guard lock(mutex_);
    return entries_.size();
}

int TrackerSession::trackingCount() const
{
    const std::lock_guard lock(mutex_);
    return open_ ? count_ : -1;
}

std::vector<ServiceRecordPtr> TrackerSession::records() const
{
    std::vector<const Entry*> order;
    std::vector<ServiceRecordPtr> result;
    const std::lock_guard lock(mutex_);
    for (const auto& [id, entry] : entries_)
        order.push_back(&entry);
    std::stable_sort(order.begin(), order.end(),
                     [](const Entry* a, const Entry* b) { return a->ranking > b->ranking; });
    for (const Entry* entry : order)
        result.push_back(entry->record);
    return result;
}

const TrackerSession::Entry* TrackerSession::best() const
{
    const Entry* best = nullptr;
    for (const auto& [id, entry] : entries_)
        if (!best || entry.ranking > best->ranking)
            best = &entry;
    return best;
}

std::shared_ptr<void> TrackerSession::object(const Entry& entry) const
{
    const auto found = entry.use->objects().find(wanted_.interfaceId);
    return found == entry.use->objects().end() ? nullptr : std::shared_ptr<void>(entry.use, found->second.get());
}

std::shared_ptr<void> TrackerSession::service() const
{
    const std::lock_guard lock(mutex_);
    const Entry* entry = best();
    return entry ? object(*entry) : nullptr;
}

std::shared_ptr<void> TrackerSession::service(const ServiceRecordPtr& record) const
{
    const std::lock_guard lock(mutex_);
    const auto found = record ? entries_.find(record->id) : entries_.end();
    return found == entries_.end() ? nullptr : object(found->second);
}

void TrackerSession::wait(std::optional<std::chrono::steady_clock::time_point> deadline) const
{
    std::unique_lock lock(mutex_);
    const auto done = [this] { return !open_ || !entries_.empty(); };
    if (deadline)
        changed_.wait_until(lock, *deadline, done);
    else
        changed_.wait(lock, done);
}

} // namespace us::detail
