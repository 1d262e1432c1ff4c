#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/common/TickManager.h"
#include "connector/desktop/DesktopMessages.h"
#include "platform/rqe/RQE.h"

namespace connector::desktop::v1 {

/// The one place where a change of variables becomes known to clients: to those that wait, and to the subscribers of
/// the channel /interpreter/variables. Nothing is compared while there are neither. A client
/// that waits occupies no thread: when the engine says that variables may have changed, one task compares them for all
/// who wait. What another thread of the script changes is seen with the next task or line. Threads: any.
class VariableWatch final : public rqe::EngineListener, public std::enable_shared_from_this<VariableWatch>
{
public:
    static constexpr std::size_t kMaxWaiters = 100;
    static constexpr std::chrono::milliseconds kMaxWait{30'000};
    static constexpr std::chrono::milliseconds kTick{50}; ///< how exactly a wait ends
    /// Between two messages on the channel: what changes meanwhile is told together.
    static constexpr std::chrono::milliseconds kGap{50};
    static constexpr const char* kChannel = "/interpreter/variables";

    /// `engine` may be empty: every request is then refused.
    explicit VariableWatch(boost::shared_ptr<rqe::RQE> engine) : engine_(std::move(engine)) {}

    void start();
    /// Fails who waits with the fault "unavailable".
    void stop();

    /// Answers with VariableChangeResponse: at once when something changed since the token or no wait is wanted, else
    /// after the next change or the wait. Throws and fails as callEngine; "busy" when too many wait.
    MessageFuture ask(const VariableChange& request, const std::shared_ptr<Context>& context);

    void variablesMayHaveChanged() override;

    /// Whether one of the tasks that wait at the engine is this object's own.
    bool lookIsQueued() const;

private:
    class Look;
    using Clock = std::chrono::steady_clock;
    using ChangesByToken = std::map<std::string, rqe::VariableChanges>;

    struct Waiter
    {
        std::string since;
        Clock::time_point end;
        Promise<std::unique_ptr<Message>> promise;
        CancellationToken::Registration registration;
    };

    rqe::VariableChanges look(rqe::Interpreter& interpreter, const std::string& since);
    MessageFuture wait(std::string since, Clock::time_point end, const std::shared_ptr<Context>& context);
    void startTick();
    void expire();
    void dropWaiter(std::uint64_t id);
    std::vector<std::string> tokens() const;
    /// Both with mutex_ held. What is due on the channel, for now or, with an answer of true, for a tick.
    bool noteNewsForChannel(bool hasSubscribers);
    bool mustLook();
    void postLook();
    void tellChannel(const rqe::VariableChanges& changes);
    void tell(const ChangesByToken& found);
    void lookEnded(const std::exception_ptr& failure);
    void failAll(const std::exception_ptr& failure);

    const boost::shared_ptr<rqe::RQE> engine_;
    /// The engine's next notification is about a task of this object's, which changes nothing.
    std::atomic<bool> ownTask_ = false;

    mutable std::mutex mutex_;
    bool stopped_ = true;
    bool lookQueued_ = false;
    bool ticking_ = false;
    std::uint64_t nextId_ = 1;
    std::map<std::uint64_t, Waiter> waiters_;
    std::string channelToken_;   ///< what subscribers know; empty when there were none
    bool channelWanted_ = false; ///< the next look is for the channel too
    bool channelDue_ = false;    ///< there is to be a look after the gap
    Clock::time_point channelGapEnd_;
    common::TickManager::Subscription tick_;
};

} // namespace connector::desktop::v1
