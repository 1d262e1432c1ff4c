#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "connector/Export.h"

namespace connector::http {

/// One client's stay, known by a cookie. Threads: any.
class CONNECTOR_API HttpSession
{
public:
    virtual ~HttpSession() = default;
    /// What other parts call the session by; not the cookie's value, and of no use to get in.
    virtual const std::string& id() const noexcept = 0;
    /// Per-session properties, at most 100 of 64 KiB each (std::length_error beyond).
    virtual void setProperty(const std::string& name, std::string value) = 0;
    virtual std::optional<std::string> property(const std::string& name) const = 0;
    virtual void removeProperty(const std::string& name) = 0;
    /// True once it expired or was ended.
    virtual bool isOver() const = 0;
};

class CONNECTOR_API HttpSessionListener
{
public:
    virtual ~HttpSessionListener() = default;
    virtual void sessionCreated(const std::shared_ptr<HttpSession>& session) { (void)session; }
    virtual void sessionEnded(const std::shared_ptr<HttpSession>& session) { (void)session; }
};

/// The sessions of this process; bounded, swept by the tick manager. Threads: any; listeners are called without a lock.
class CONNECTOR_API HttpSessionManager : public std::enable_shared_from_this<HttpSessionManager>
{
public:
    virtual ~HttpSessionManager() = default;
    /// How long a session lives without a request, and how many there may be; sessions beyond that stay.
    virtual void setLimits(std::chrono::milliseconds idle, std::size_t maxSessions) = 0;
    /// A new session and the secret for its cookie. Null when there are too many.
    struct Created
    {
        std::shared_ptr<HttpSession> session;
        std::string secret; ///< 128 bits or more, safe in a cookie
    };
    virtual std::optional<Created> create() = 0;
    /// The live session with this secret, its idle time starting anew; null otherwise.
    virtual std::shared_ptr<HttpSession> find(const std::string& secret) = 0;
    virtual void end(const std::string& id) = 0;
    virtual std::size_t size() const = 0;
    /// Held weakly.
    virtual void addListener(const std::shared_ptr<HttpSessionListener>& listener) = 0;
    virtual std::shared_ptr<HttpSessionManager> getPtr() = 0;
};

} // namespace connector::http
