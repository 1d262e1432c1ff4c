#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include <Poco/JSON/Object.h>

#include "connector/Export.h"
#include "connector/http/HttpSession.h"

namespace connector::hitchhiker::v1 {

/// What waited for a session, oldest first.
struct QueuedMessages
{
    std::vector<Poco::JSON::Object::Ptr> messages; ///< shared among sessions: not to be changed
    std::size_t dropped = 0;                       ///< older ones that gave way since the last time
};

/// Messages that wait until their client is answered anyway. Threads: any.
class CONNECTOR_API HitchhikerService
{
public:
    virtual ~HitchhikerService() = default;

    /// Queues a message for the session with this (public) id, known yet or not; an empty id means every session that
    /// lives and was answered. Answers for how many sessions it waits: 0 when the session is over. `message` has a
    /// "type" and is not changed any more. Throws std::invalid_argument for a message or id that is too long,
    /// ServiceFault "busy" when too much waits.
    virtual std::size_t queueMessage(const std::string& sessionId, Poco::JSON::Object::Ptr message) = 0;

    /// Takes what waits for the session, and counts it among those that were answered.
    virtual QueuedMessages getQueuedMessages(const std::shared_ptr<http::HttpSession>& session) = 0;
};

class CONNECTOR_API HitchhikerServiceImpl final : public HitchhikerService
{
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMaxMessages = 100;            ///< for one session; the oldest gives way
    static constexpr std::size_t kMaxSessionBytes = 256u << 10; ///< of JSON text, likewise
    static constexpr std::size_t kMaxBytes = 64u << 20;         ///< for all sessions
    static constexpr std::size_t kMaxSessions = 1'000;
    static constexpr std::size_t kMaxIdBytes = 64;
    /// How long messages wait for an id that no session came with. Those for a session wait as long as it lives.
    static constexpr std::chrono::minutes kLife{10};

    HitchhikerServiceImpl();
    /// With a clock of the caller's.
    explicit HitchhikerServiceImpl(std::function<Clock::time_point()> now);
    ~HitchhikerServiceImpl() override;

    std::size_t queueMessage(const std::string& sessionId, Poco::JSON::Object::Ptr message) override;
    QueuedMessages getQueuedMessages(const std::shared_ptr<http::HttpSession>& session) override;

private:
    struct Waiting
    {
        Poco::JSON::Object::Ptr message;
        std::size_t bytes = 0;
    };
    struct Queue
    {
        std::deque<Waiting> waiting;
        std::size_t bytes = 0;
        std::size_t dropped = 0;
        Clock::time_point lastUse;
        bool seen = false;                        ///< an answer of the session passed
        std::weak_ptr<http::HttpSession> session; ///< once seen
    };
    using Queues = std::map<std::string, Queue>; ///< by the session's id

    static std::tuple<bool, bool, Clock::time_point> worth(const Queue& queue);
    bool isOver(const Queue& queue, Clock::time_point now) const;
    void forgetOld(Clock::time_point now);
    bool makeRoom(Clock::time_point now, bool forSeen);
    Queue* findOrAdd(const std::string& id, Clock::time_point now);
    void append(Queue& queue, const Waiting& message);
    void dropOldest(Queue& queue);

    const std::function<Clock::time_point()> now_;
    std::mutex mutex_;
    Queues queues_;
    std::size_t bytes_ = 0;
    Clock::time_point nextSweep_;
};

} // namespace connector::hitchhiker::v1
