#pragma once

#include <functional>
#include <list>
#include <unordered_map>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

/// The last events of channels that retain, bounded by their bytes: the ones that were published longest ago go first.
/// One thread at a time.
class RetainedEvents
{
public:
    /// Answers how many went.
    std::size_t keep(const EventPtr& event, std::size_t maxBytes);
    /// Null for none.
    EventPtr find(const std::string& channel) const;
    void forget(const std::string& channel);
    /// Those whose channel is told no longer to retain.
    void forgetUnless(const std::function<bool(const std::string& channel)>& retains);
    /// From the oldest on.
    const std::list<EventPtr>& all() const noexcept { return events_; }

private:
    using Place = std::list<EventPtr>::iterator;
    void drop(Place place);

    std::list<EventPtr> events_;
    std::unordered_map<std::string, Place> places_;
    std::size_t bytes_ = 0;
};

} // namespace connector::bayeux
