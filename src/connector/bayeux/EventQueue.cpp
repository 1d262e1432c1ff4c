#include "connector/bayeux/EventQueue.h"

#include <algorithm>

namespace connector::bayeux {

bool EventQueue::push(const EventPtr& event, const BayeuxLimits& limits, std::uint64_t& droppedLazy)
{
    const std::size_t size = event->text().size();
    while (waiting_.size() + sent_.size() >= limits.queueMessages || bytes_ + size > limits.queueBytes) {
        if (lazy_ == 0 && !event->isLazy())
            return false;
        ++droppedLazy;
        if (!dropOldestLazy())
            return true; // the new one is the only lazy one
    }
    if (event->isLazy()) {
        if (lazy_++ == 0)
            lazyDue_ = Clock::now() + limits.lazyDelay;
    }
    waiting_.push_back(event);
    bytes_ += size;
    return true;
}

bool EventQueue::dropOldestLazy()
{
    const auto oldest =
        std::find_if(waiting_.begin(), waiting_.end(), [](const auto& event) { return event->isLazy(); });
    if (oldest == waiting_.end())
        return false;
    bytes_ -= (*oldest)->text().size();
    --lazy_;
    waiting_.erase(oldest);
    return true;
}

EventQueue::Events EventQueue::take(bool keep)
{
    Events events(std::make_move_iterator(waiting_.begin()), std::make_move_iterator(waiting_.end()));
    waiting_.clear();
    lazy_ = 0;
    if (events.empty())
        return events;
    if (keep)
        ++batch_;
    for (const auto& event : events) {
        if (keep)
            sent_.push_back({batch_, event});
        else
            bytes_ -= event->text().size();
    }
    return events;
}

void EventQueue::requeue(EventPtr&& event)
{
    // What was on its way once waits for nothing any more.
    if (event->isLazy() && lazy_++ == 0)
        lazyDue_ = {};
    waiting_.push_front(std::move(event));
}

void EventQueue::restore(Events&& events, bool kept)
{
    if (kept) {
        // Unless the client's next connect asked for them meanwhile.
        if (events.empty() || sent_.empty() || sent_.back().event != events.back())
            return;
        for (const auto batch = sent_.back().batch; !sent_.empty() && sent_.back().batch == batch; sent_.pop_back())
            requeue(std::move(sent_.back().event));
        return;
    }
    while (!events.empty()) {
        bytes_ += events.back()->text().size();
        requeue(std::move(events.back()));
        events.pop_back();
    }
}

void EventQueue::acknowledge(std::uint64_t batch)
{
    while (!sent_.empty() && sent_.front().batch <= batch) {
        bytes_ -= sent_.front().event->text().size();
        sent_.pop_front();
    }
    while (!sent_.empty()) {
        requeue(std::move(sent_.back().event));
        sent_.pop_back();
    }
}

void EventQueue::drop(const std::string& channel)
{
    const auto isDropped = [&](const EventPtr& event) {
        if (event->channel() != channel)
            return false;
        bytes_ -= event->text().size();
        return true;
    };
    waiting_.remove_if([&](const EventPtr& event) {
        const bool dropped = isDropped(event);
        lazy_ -= dropped && event->isLazy() ? 1 : 0;
        return dropped;
    });
    sent_.remove_if([&](const Sent& sent) { return isDropped(sent.event); });
}

void EventQueue::clear()
{
    waiting_.clear();
    sent_.clear();
    bytes_ = lazy_ = 0;
}

} // namespace connector::bayeux
