#pragma once

#include <atomic>

#include "connector/http/HttpServiceProvider.h"
#include "connector/http/HttpSession.h"

namespace connector::http {

/// Puts the session of a request's cookie into its context. A request without a valid cookie gets a new session, whose
/// cookie goes out with the answer; not so a request with a bearer token, which comes from a program that keeps no
/// cookies, and nobody while there are too many sessions. A session whose first request is refused ends with it.
class CONNECTOR_API HttpSessionServiceProvider final : public HttpServiceProvider
{
public:
    /// The cookie's name, before the port.
    static constexpr const char* kCookieName = "VENDRASESSION";

    explicit HttpSessionServiceProvider(std::shared_ptr<HttpSessionManager> sessions) : sessions_(std::move(sessions))
    {}

    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    std::shared_ptr<HttpSession> findSession(const HttpRequest& request) const;
    void readLimits(Connector& connector);

    const std::shared_ptr<HttpSessionManager> sessions_;
    std::atomic<bool> limitsRead_{false};
};

} // namespace connector::http
