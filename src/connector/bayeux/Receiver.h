#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

class Session;

/// One published message on its way: the event for clients, and, made when the first one wants it, the message for
/// functions of this process. One thread.
class Publication
{
public:
    explicit Publication(EventPtr event) : event_(std::move(event)) {}
    Publication(EventPtr event, BayeuxMessage message) : event_(std::move(event)), message_(std::move(message))
    {
        message_->event = event_;
    }
    Publication(EventPtr event, Poco::JSON::Object::Ptr ext, SessionPtr sender)
        : event_(std::move(event)), ext_(std::move(ext)), sender_(std::move(sender))
    {}

    const EventPtr& event() const noexcept { return event_; }
    const BayeuxMessage& message() const;

private:
    EventPtr event_;
    Poco::JSON::Object::Ptr ext_;
    SessionPtr sender_;
    mutable std::optional<BayeuxMessage> message_;
};

/// What one call into the server causes: sessions whose held connects have something to take along, answered once
/// when all of it is queued, and sessions that did not keep up. One thread.
struct Burst
{
    explicit Burst(const BayeuxLimits& current) : limits(current) {}

    const BayeuxLimits limits;
    std::vector<std::shared_ptr<Session>> released;
    std::vector<std::shared_ptr<Session>> overflowed;
    std::uint64_t delivered = 0;
    std::uint64_t droppedLazy = 0;
};

/// Who can be subscribed. Threads: any.
class Receiver
{
public:
    virtual ~Receiver() = default;
    virtual void receive(const Publication& publication, Burst& burst) = 0;
    /// The session it is, or null.
    virtual std::shared_ptr<Session> session() { return nullptr; }

private:
    friend class Channels;
    std::set<std::string> subscriptions_; ///< guarded by the table's lock
    bool closed_ = false;                 ///< takes no more subscriptions; guarded by the table's lock
};

/// A function of this process.
class FunctionReceiver final : public Receiver
{
public:
    explicit FunctionReceiver(BayeuxServer::Subscriber function) : function_(std::move(function)) {}
    void receive(const Publication& publication, Burst& burst) override;

private:
    const BayeuxServer::Subscriber function_;
};

} // namespace connector::bayeux
