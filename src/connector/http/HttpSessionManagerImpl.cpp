#include "connector/http/HttpSessionManagerImpl.h"

#include <stdexcept>

#include "connector/common/Log.h"
#include "connector/common/Secret.h"

namespace connector::http {

namespace {

constexpr std::size_t kMaxProperties = 100;
constexpr std::size_t kMaxPropertyBytes = 64u << 10;

} // namespace

class HttpSessionManagerImpl::Session final : public HttpSession
{
public:
    explicit Session(Clock::time_point now) : id_(common::randomHex(8)), lastUse_(now) {}

    const std::string& id() const noexcept override { return id_; }

    void setProperty(const std::string& name, std::string value) override
    {
        std::lock_guard lock(mutex_);
        if (name.size() > kMaxPropertyBytes || value.size() > kMaxPropertyBytes)
            throw std::length_error("A property of a session is longer than 64 KiB.");
        if (properties_.size() >= kMaxProperties && !properties_.contains(name))
            throw std::length_error("A session has no room for more than 100 properties.");
        properties_.insert_or_assign(name, std::move(value));
    }

    std::optional<std::string> property(const std::string& name) const override
    {
        std::lock_guard lock(mutex_);
        const auto found = properties_.find(name);
        return found == properties_.end() ? std::nullopt : std::optional(found->second);
    }

    void removeProperty(const std::string& name) override
    {
        std::lock_guard lock(mutex_);
        properties_.erase(name);
    }

    bool isOver() const override { return over_.load(std::memory_order_acquire); }

    void setOver() noexcept { over_.store(true, std::memory_order_release); }
    // The last use is guarded by the manager's lock.
    void use(Clock::time_point now) noexcept { lastUse_ = now; }
    Clock::time_point lastUse() const noexcept { return lastUse_; }

private:
    const std::string id_;
    Clock::time_point lastUse_;
    std::atomic<bool> over_{false};
    mutable std::mutex mutex_;
    std::map<std::string, std::string> properties_;
};

HttpSessionManagerImpl::HttpSessionManagerImpl() : idle_(std::chrono::hours(12)), maxSessions_(1'000) {}

HttpSessionManagerImpl::~HttpSessionManagerImpl() = default;

void HttpSessionManagerImpl::setLimits(std::chrono::milliseconds idle, std::size_t maxSessions)
{
    std::lock_guard lock(mutex_);
    idle_ = idle;
    maxSessions_ = maxSessions;
}

std::optional<HttpSessionManager::Created> HttpSessionManagerImpl::create()
{
    const std::string secret = common::randomHex(32);
    auto session = std::make_shared<Session>(Clock::now());
    {
        std::lock_guard lock(mutex_);
        if (sessions_.size() >= maxSessions_)
            return std::nullopt;
        sessions_.emplace(common::sha256(secret), session);
    }
    subscribe();
    tell([&session](HttpSessionListener& listener) { listener.sessionCreated(session); });
    return Created{session, secret};
}

std::shared_ptr<HttpSession> HttpSessionManagerImpl::find(const std::string& secret)
{
    // What the client sends meets only a hash of the secret, so that the time a lookup takes tells nothing of use.
    const std::string key = common::sha256(secret);
    const auto now = Clock::now();
    std::shared_ptr<Session> expired;
    {
        std::lock_guard lock(mutex_);
        const auto found = sessions_.find(key);
        if (found == sessions_.end())
            return nullptr;
        if (now - found->second->lastUse() < idle_) {
            found->second->use(now);
            return found->second;
        }
        expired = found->second;
        sessions_.erase(found);
    }
    ended({expired});
    return nullptr;
}

void HttpSessionManagerImpl::end(const std::string& id)
{
    std::shared_ptr<Session> session;
    {
        std::lock_guard lock(mutex_);
        const auto found = std::find_if(sessions_.begin(), sessions_.end(),
                                        [&id](const auto& entry) { return entry.second->id() == id; });
        if (found == sessions_.end())
            return;
        session = found->second;
        sessions_.erase(found);
    }
    ended({session});
}

std::size_t HttpSessionManagerImpl::size() const
{
    std::lock_guard lock(mutex_);
    return sessions_.size();
}

void HttpSessionManagerImpl::addListener(const std::shared_ptr<HttpSessionListener>& listener)
{
    std::lock_guard lock(mutex_);
    std::erase_if(listeners_, [](const auto& known) { return known.expired(); });
    listeners_.push_back(listener);
}

void HttpSessionManagerImpl::sweep()
{
    const auto now = Clock::now();
    std::vector<std::shared_ptr<Session>> expired;
    {
        std::lock_guard lock(mutex_);
        for (auto entry = sessions_.begin(); entry != sessions_.end();) {
            if (now - entry->second->lastUse() >= idle_) {
                expired.push_back(entry->second);
                entry = sessions_.erase(entry);
            } else {
                ++entry;
            }
        }
    }
    ended(expired);
}

/// From the first session on; earlier there is nothing to expire, and in the constructor nothing to refer to weakly.
void HttpSessionManagerImpl::subscribe()
{
    std::chrono::milliseconds interval;
    {
        std::lock_guard lock(mutex_);
        if (ticking_)
            return;
        ticking_ = true;
        interval = std::clamp(idle_ / 4, std::chrono::milliseconds(10), std::chrono::milliseconds(15'000));
    }
    auto ticks = common::TickManager::instance()->every(interval, [weak = weak_from_this()] {
        if (const auto self = weak.lock())
            static_cast<HttpSessionManagerImpl&>(*self).sweep();
    });
    std::lock_guard lock(mutex_);
    ticks_ = std::move(ticks);
}

void HttpSessionManagerImpl::ended(const std::vector<std::shared_ptr<Session>>& sessions)
{
    if (sessions.empty())
        return;
    for (const auto& session : sessions)
        session->setOver();
    tell([&sessions](HttpSessionListener& listener) {
        for (const auto& session : sessions)
            listener.sessionEnded(session);
    });
}

void HttpSessionManagerImpl::tell(const std::function<void(HttpSessionListener&)>& news)
{
    for (const auto& listener : listeners()) {
        try {
            news(*listener);
        } catch (const std::exception& error) {
            common::log("connector.http.session", common::LogLevel::error,
                        std::string("A listener of sessions failed: ") + error.what());
        }
    }
}

std::vector<std::shared_ptr<HttpSessionListener>> HttpSessionManagerImpl::listeners() const
{
    std::vector<std::shared_ptr<HttpSessionListener>> alive;
    std::lock_guard lock(mutex_);
    for (const auto& listener : listeners_) {
        if (auto strong = listener.lock())
            alive.push_back(std::move(strong));
    }
    return alive;
}

} // namespace connector::http
