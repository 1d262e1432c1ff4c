#pragma once

#include <list>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

/// What a session has not been sent, and, with acknowledgement, what it has not confirmed: bounded together by count
/// and bytes. One thread at a time.
class EventQueue
{
public:
    using Clock = std::chrono::steady_clock;
    using Events = std::vector<EventPtr>;

    /// False when it does not fit, even without the lazy events that are dropped first (counted in `droppedLazy`).
    bool push(const EventPtr& event, const BayeuxLimits& limits, std::uint64_t& droppedLazy);
    bool empty() const noexcept { return waiting_.empty(); }
    /// What waits, and what is not confirmed.
    std::size_t size() const noexcept { return waiting_.size() + sent_.size(); }
    /// Less than half of what it may hold is free.
    bool isCrowded(const BayeuxLimits& limits) const noexcept
    {
        return waiting_.size() + sent_.size() > limits.queueMessages / 2 || bytes_ > limits.queueBytes / 2;
    }
    std::size_t bytes() const noexcept { return bytes_; }
    /// Something waits that should not, or has waited long enough.
    bool isUrgent(Clock::time_point now) const noexcept
    {
        return !empty() && (lazy_ < waiting_.size() || lazyDue_ <= now);
    }
    /// When lazy events have waited long enough; max() without.
    Clock::time_point lazyDue() const noexcept { return empty() ? Clock::time_point::max() : lazyDue_; }

    /// All that waits, in order. With `keep` it stays as the next batch until `acknowledge`.
    Events take(bool keep);
    /// What `take` gave did not reach its client.
    void restore(Events&& events, bool kept);
    /// Batches up to this one arrived; later ones are to be sent again.
    void acknowledge(std::uint64_t batch);
    /// The last batch that `take` made; 0 for none.
    std::uint64_t batch() const noexcept { return batch_; }
    /// Takes out the events of a channel, those that were sent and not confirmed as well.
    void drop(const std::string& channel);
    void clear();

private:
    struct Sent
    {
        std::uint64_t batch;
        EventPtr event;
    };

    bool dropOldestLazy();
    void requeue(EventPtr&& event);

    // A list takes nothing while it is empty, as it is in most of ten thousand clients.
    std::list<EventPtr> waiting_;
    std::list<Sent> sent_;
    std::size_t bytes_ = 0; ///< of both
    std::size_t lazy_ = 0;  ///< of those that wait
    std::uint64_t batch_ = 0;
    Clock::time_point lazyDue_{};
};

} // namespace connector::bayeux
