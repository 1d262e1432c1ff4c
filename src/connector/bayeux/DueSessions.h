#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace connector::bayeux {

class Session;

/// The sessions in the order in which they have something to do. Threads: any; called with a session's lock held.
class DueSessions
{
public:
    using Clock = std::chrono::steady_clock;
    using Sessions = std::vector<std::shared_ptr<Session>>;

    /// `noted`: when it was due as far as is known here; max() for never, as for `due`.
    void move(const std::weak_ptr<Session>& session, const Session* key, Clock::time_point noted,
              Clock::time_point due);
    /// Those that are due until then, who are not known any more then.
    Sessions take(Clock::time_point until);

private:
    using Key = std::pair<Clock::time_point, const Session*>;

    std::mutex mutex_;
    std::map<Key, std::weak_ptr<Session>> sessions_;
};

} // namespace connector::bayeux
