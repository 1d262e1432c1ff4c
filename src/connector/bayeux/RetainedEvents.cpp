#include "connector/bayeux/RetainedEvents.h"

namespace connector::bayeux {

std::size_t RetainedEvents::keep(const EventPtr& event, std::size_t maxBytes)
{
    forget(event->channel());
    places_[event->channel()] = events_.insert(events_.end(), event);
    bytes_ += event->text().size();
    std::size_t gone = 0;
    for (; bytes_ > maxBytes; ++gone)
        drop(events_.begin());
    return gone;
}

EventPtr RetainedEvents::find(const std::string& channel) const
{
    const auto found = places_.find(channel);
    return found == places_.end() ? nullptr : *found->second;
}

void RetainedEvents::forget(const std::string& channel)
{
    if (const auto found = places_.find(channel); found != places_.end())
        drop(found->second);
}

void RetainedEvents::forgetUnless(const std::function<bool(const std::string& channel)>& retains)
{
    for (auto place = events_.begin(); place != events_.end();) {
        const auto current = place++;
        if (!retains((*current)->channel()))
            drop(current);
    }
}

void RetainedEvents::drop(Place place)
{
    bytes_ -= (*place)->text().size();
    places_.erase((*place)->channel());
    events_.erase(place);
}

} // namespace connector::bayeux
