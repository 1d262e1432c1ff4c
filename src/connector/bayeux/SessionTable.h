#pragma once

#include <deque>
#include <map>
#include <shared_mutex>
#include <unordered_map>
#include <unordered_set>

#include "connector/bayeux/Session.h"

namespace connector::bayeux {

/// The sessions by id, and which of them live on which WebSocket. Threads: any.
class SessionTable
{
public:
    using Sessions = std::vector<std::shared_ptr<Session>>;

    void open();
    /// Takes no more sessions; gives up those it had.
    Sessions close();
    bool isOpen() const;

    enum class Added
    {
        yes,
        full,
        closed
    };
    Added add(const std::shared_ptr<Session>& session, std::size_t maximum);
    bool remove(const Session& session);
    std::shared_ptr<Session> find(const std::string& id) const;
    Sessions all() const;
    std::size_t size() const;

    /// False when that WebSocket is closed already.
    bool bind(const Session::Sink& sink, const std::shared_ptr<Session>& session);
    Sessions unbind(const Session::Sink& sink);

    /// Sessions that were told not to come back; the newest kMaxBanned are remembered.
    void ban(const std::string& id);
    bool isBanned(const std::string& id) const;

    static constexpr std::size_t kMaxBanned = 10'000;

private:
    using WeakSink = std::weak_ptr<BayeuxChannelSink>;

    mutable std::shared_mutex mutex_;
    bool open_ = false;
    std::unordered_map<std::string, std::shared_ptr<Session>> sessions_;

    std::mutex sinkMutex_;
    std::map<WeakSink, std::vector<std::weak_ptr<Session>>, std::owner_less<WeakSink>> bound_;
    std::set<WeakSink, std::owner_less<WeakSink>> closedSinks_; ///< as long as somebody refers to them
    std::size_t pruneAt_ = 64;

    mutable std::mutex banMutex_;
    std::deque<std::string> bannedInOrder_;
    std::unordered_set<std::string> banned_;
};

} // namespace connector::bayeux
