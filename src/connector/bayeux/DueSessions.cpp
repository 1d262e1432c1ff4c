#include "connector/bayeux/DueSessions.h"

namespace connector::bayeux {

void DueSessions::move(const std::weak_ptr<Session>& session, const Session* key, Clock::time_point noted,
                       Clock::time_point due)
{
    std::lock_guard lock(mutex_);
    if (noted != Clock::time_point::max())
        sessions_.erase({noted, key});
    if (due != Clock::time_point::max())
        sessions_.insert_or_assign(Key(due, key), session);
}

DueSessions::Sessions DueSessions::take(Clock::time_point until)
{
    Sessions due;
    std::lock_guard lock(mutex_);
    while (!sessions_.empty() && sessions_.begin()->first.first <= until) {
        if (auto session = sessions_.begin()->second.lock())
            due.push_back(std::move(session));
        sessions_.erase(sessions_.begin());
    }
    return due;
}

} // namespace connector::bayeux
