#pragma once

#include <map>
#include <mutex>
#include <vector>

#include "connector/common/TickManager.h"
#include "connector/http/HttpSession.h"

namespace connector::http {

/// The sessions of this process. Secrets are kept as hashes only.
class CONNECTOR_API HttpSessionManagerImpl final : public HttpSessionManager
{
public:
    /// 1000 sessions, which end after 12 idle hours.
    HttpSessionManagerImpl();
    ~HttpSessionManagerImpl() override;

    void setLimits(std::chrono::milliseconds idle, std::size_t maxSessions) override;
    std::optional<Created> create() override;
    std::shared_ptr<HttpSession> find(const std::string& secret) override;
    void end(const std::string& id) override;
    std::size_t size() const override;
    void addListener(const std::shared_ptr<HttpSessionListener>& listener) override;
    std::shared_ptr<HttpSessionManager> getPtr() override { return shared_from_this(); }

private:
    class Session;
    using Clock = std::chrono::steady_clock;
    using Sessions = std::map<std::string, std::shared_ptr<Session>>; ///< by the hash of the secret

    void sweep();
    void subscribe();
    void ended(const std::vector<std::shared_ptr<Session>>& sessions);
    void tell(const std::function<void(HttpSessionListener&)>& news);
    std::vector<std::shared_ptr<HttpSessionListener>> listeners() const;

    mutable std::mutex mutex_;
    Sessions sessions_;
    std::chrono::milliseconds idle_;
    std::size_t maxSessions_;
    std::vector<std::weak_ptr<HttpSessionListener>> listeners_;
    common::TickManager::Subscription ticks_;
    bool ticking_ = false;
};

} // namespace connector::http
