#include "connector/bayeux/SessionTable.h"

namespace connector::bayeux {

void SessionTable::open()
{
    std::lock_guard lock(mutex_);
    open_ = true;
}

SessionTable::Sessions SessionTable::close()
{
    Sessions ended;
    std::lock_guard lock(mutex_);
    open_ = false;
    ended.reserve(sessions_.size());
    for (auto& [id, session] : sessions_)
        ended.push_back(std::move(session));
    sessions_.clear();
    return ended;
}

bool SessionTable::isOpen() const
{
    std::shared_lock lock(mutex_);
    return open_;
}

SessionTable::Added SessionTable::add(const std::shared_ptr<Session>& session, std::size_t maximum)
{
    std::lock_guard lock(mutex_);
    if (!open_)
        return Added::closed;
    if (sessions_.size() >= maximum)
        return Added::full;
    sessions_.emplace(session->id(), session);
    return Added::yes;
}

bool SessionTable::remove(const Session& session)
{
    std::shared_ptr<Session> kept; // its end is not for the lock
    std::lock_guard lock(mutex_);
    const auto found = sessions_.find(session.id());
    if (found == sessions_.end())
        return false;
    kept = std::move(found->second);
    sessions_.erase(found);
    return true;
}

std::shared_ptr<Session> SessionTable::find(const std::string& id) const
{
    std::shared_lock lock(mutex_);
    const auto found = sessions_.find(id);
    return found == sessions_.end() ? nullptr : found->second;
}

SessionTable::Sessions SessionTable::all() const
{
    Sessions sessions;
    std::shared_lock lock(mutex_);
    sessions.reserve(sessions_.size());
    for (const auto& [id, session] : sessions_)
        sessions.push_back(session);
    return sessions;
}

std::size_t SessionTable::size() const
{
    std::shared_lock lock(mutex_);
    return sessions_.size();
}

bool SessionTable::bind(const Session::Sink& sink, const std::shared_ptr<Session>& session)
{
    std::lock_guard lock(sinkMutex_);
    if (closedSinks_.contains(sink))
        return false;
    auto& sessions = bound_[sink];
    for (const auto& known : sessions) {
        if (!known.owner_before(session) && !session.owner_before(known))
            return true;
    }
    std::erase_if(sessions, [](const auto& known) { return known.expired(); });
    sessions.push_back(session);
    return true;
}

SessionTable::Sessions SessionTable::unbind(const Session::Sink& sink)
{
    Sessions sessions;
    std::lock_guard lock(sinkMutex_);
    closedSinks_.insert(sink);
    if (closedSinks_.size() >= pruneAt_) {
        std::erase_if(closedSinks_, [](const auto& closed) { return closed.expired(); });
        std::erase_if(bound_, [](const auto& entry) { return entry.first.expired(); });
        pruneAt_ = 64 + 2 * closedSinks_.size();
    }
    const auto found = bound_.find(sink);
    if (found == bound_.end())
        return sessions;
    for (const auto& known : found->second) {
        if (auto session = known.lock())
            sessions.push_back(std::move(session));
    }
    bound_.erase(found);
    return sessions;
}

void SessionTable::ban(const std::string& id)
{
    std::lock_guard lock(banMutex_);
    if (!banned_.insert(id).second)
        return;
    bannedInOrder_.push_back(id);
    if (bannedInOrder_.size() > kMaxBanned) {
        banned_.erase(bannedInOrder_.front());
        bannedInOrder_.pop_front();
    }
}

bool SessionTable::isBanned(const std::string& id) const
{
    std::lock_guard lock(banMutex_);
    return banned_.contains(id);
}

} // namespace connector::bayeux
