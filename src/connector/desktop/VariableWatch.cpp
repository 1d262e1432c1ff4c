#include "connector/desktop/VariableWatch.h"

#include <algorithm>
#include <utility>

#include "connector/core/ServiceFault.h"
#include "connector/desktop/DesktopWire.h"
#include "connector/desktop/EngineCall.h"
#include "connector/json/JsonText.h"
#include "platform/rqe/MessageBus.h"

namespace connector::desktop::v1 {
namespace {

using MessagePtr = std::unique_ptr<Message>;

MessagePtr answerOf(rqe::VariableChanges changes)
{
    auto answer = std::make_unique<VariableChangeResponse>();
    answer->changes = std::move(changes);
    return answer;
}

/// A token that nobody has: the answer names all variables.
constexpr const char* kNoToken = "none";

bool hasNews(const rqe::VariableChanges& changes)
{
    return changes.restarted || !changes.changed.empty() || !changes.removed.empty();
}

ServiceFault tooManyWait()
{
    return {"busy", "At most " + std::to_string(VariableWatch::kMaxWaiters) + " clients may wait for changes."};
}

std::exception_ptr goingDown()
{
    return std::make_exception_ptr(ServiceFault("unavailable", "The service is going down."));
}

} // namespace

/// Compares the variables for all who wait.
class VariableWatch::Look final : public rqe::Task
{
public:
    explicit Look(std::shared_ptr<VariableWatch> watch) : watch_(std::move(watch)) {}

    void run(rqe::Interpreter& interpreter) override
    {
        // Who waits has mostly the same token: that of the look before.
        for (const auto& token : watch_->tokens())
            if (!found_.contains(token))
                found_[token] = watch_->look(interpreter, token);
    }

    void finish() noexcept override
    {
        watch_->lookEnded(nullptr);
        watch_->tell(found_);
    }

    void abandon(std::exception_ptr reason) noexcept override { watch_->lookEnded(reason); }

private:
    const std::shared_ptr<VariableWatch> watch_;
    ChangesByToken found_;
};

void VariableWatch::start()
{
    {
        std::lock_guard lock(mutex_);
        stopped_ = false;
    }
    if (engine_)
        engine_->addListener(shared_from_this());
}

void VariableWatch::stop()
{
    if (engine_)
        engine_->removeListener(this);
    common::TickManager::Subscription tick; // ended without the lock, which its callback takes
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        ticking_ = false;
        std::swap(tick, tick_);
    }
    failAll(goingDown());
}

MessageFuture VariableWatch::ask(const VariableChange& request, const std::shared_ptr<Context>& context)
{
    {
        std::lock_guard lock(mutex_);
        if (request.wait.count() > 0 && waiters_.size() >= kMaxWaiters)
            throw tooManyWait();
    }
    const auto end = Clock::now() + std::min(request.wait, kMaxWait);
    const bool mayWait = request.wait.count() > 0 && !request.since.empty();
    return callEngine(engine_, context,
                      [self = shared_from_this(), since = request.since](rqe::Interpreter& interpreter) {
                          return answerOf(self->look(interpreter, since));
                      })
        .then([self = shared_from_this(), mayWait, end, context](MessageFuture answered) {
            auto answer = answered.get();
            auto& changes = static_cast<VariableChangeResponse&>(*answer).changes;
            // On the interpreter thread: no change can come between the look and the wait.
            if (mayWait && !hasNews(changes) && Clock::now() < end)
                return self->wait(std::move(changes.token), end, context);
            return makeReadyFuture(std::move(answer));
        });
}

rqe::VariableChanges VariableWatch::look(rqe::Interpreter& interpreter, const std::string& since)
{
    ownTask_ = true;
    return interpreter.changesSince(since);
}

MessageFuture VariableWatch::wait(std::string since, Clock::time_point end, const std::shared_ptr<Context>& context)
{
    MessageFuture future;
    std::uint64_t id = 0;
    bool mustTick = false;
    {
        std::lock_guard lock(mutex_);
        if (stopped_)
            std::rethrow_exception(goingDown());
        if (waiters_.size() >= kMaxWaiters)
            throw tooManyWait();
        id = nextId_++;
        Waiter& waiter = waiters_[id];
        waiter.since = std::move(since);
        waiter.end = end;
        future = waiter.promise.future();
        mustTick = !std::exchange(ticking_, true);
    }
    if (mustTick)
        startTick();
    // May call back at once.
    auto registration = context->cancellation()->onCancel([weak = weak_from_this(), id] {
        if (auto self = weak.lock())
            self->dropWaiter(id);
    });
    std::lock_guard lock(mutex_);
    if (auto found = waiters_.find(id); found != waiters_.end())
        found->second.registration = std::move(registration);
    return future;
}

void VariableWatch::startTick()
{
    auto tick = common::TickManager::instance()->every(kTick, [weak = weak_from_this()] {
        if (auto self = weak.lock())
            self->expire();
    });
    std::lock_guard lock(mutex_);
    if (!stopped_)
        std::swap(tick, tick_);
}

void VariableWatch::expire()
{
    const auto now = Clock::now();
    std::vector<Waiter> ended;
    common::TickManager::Subscription tick;
    bool looks = false;
    {
        std::lock_guard lock(mutex_);
        for (auto next = waiters_.begin(); next != waiters_.end();) {
            if (next->second.end > now) {
                ++next;
                continue;
            }
            ended.push_back(std::move(next->second));
            next = waiters_.erase(next);
        }
        if (channelDue_ && channelGapEnd_ <= now) {
            channelDue_ = false;
            channelWanted_ = true;
            looks = mustLook();
        }
        if (waiters_.empty() && !channelDue_) {
            ticking_ = false;
            std::swap(tick, tick_);
        }
    }
    if (looks)
        postLook();
    for (Waiter& waiter : ended) {
        rqe::VariableChanges none;
        none.token = std::move(waiter.since);
        waiter.promise.setValue(answerOf(std::move(none)));
    }
}

void VariableWatch::dropWaiter(std::uint64_t id)
{
    Waiter dropped;
    {
        std::lock_guard lock(mutex_);
        const auto found = waiters_.find(id);
        if (found == waiters_.end())
            return;
        dropped = std::move(found->second);
        waiters_.erase(found);
    }
    dropped.promise.setException(ServiceFault("cancelled", "The client went away."));
}

void VariableWatch::variablesMayHaveChanged()
{
    if (ownTask_.exchange(false))
        return;
    const bool hasSubscribers = rqe::ProcessBus::hasSubscribers(kChannel);
    bool looks = false;
    bool mustTick = false;
    {
        std::lock_guard lock(mutex_);
        if (stopped_)
            return;
        mustTick = noteNewsForChannel(hasSubscribers) && !std::exchange(ticking_, true);
        looks = mustLook();
    }
    if (mustTick)
        startTick();
    if (looks)
        postLook();
}

bool VariableWatch::noteNewsForChannel(bool hasSubscribers)
{
    if (!hasSubscribers) {
        channelToken_.clear();
        channelWanted_ = channelDue_ = false;
        return false;
    }
    channelDue_ = Clock::now() < channelGapEnd_;
    channelWanted_ = channelWanted_ || !channelDue_;
    return channelDue_;
}

bool VariableWatch::lookIsQueued() const
{
    std::lock_guard lock(mutex_);
    return lookQueued_;
}

bool VariableWatch::mustLook() { return (!waiters_.empty() || channelWanted_) && !std::exchange(lookQueued_, true); }

void VariableWatch::postLook()
{
    try {
        engine_->post(std::make_unique<Look>(shared_from_this()));
    } catch (const rqe::EngineError&) {
        // A full queue brings the next notification soon.
        lookEnded(std::current_exception());
    }
}

std::vector<std::string> VariableWatch::tokens() const
{
    std::lock_guard lock(mutex_);
    std::vector<std::string> tokens;
    for (const auto& [id, waiter] : waiters_)
        tokens.push_back(waiter.since);
    if (channelWanted_)
        tokens.push_back(channelToken_.empty() ? kNoToken : channelToken_);
    return tokens;
}

void VariableWatch::tell(const ChangesByToken& found)
{
    std::vector<std::pair<Waiter, const rqe::VariableChanges*>> told;
    const rqe::VariableChanges* news = nullptr;
    bool again = false;
    {
        std::lock_guard lock(mutex_);
        const auto forChannel = found.find(channelToken_.empty() ? kNoToken : channelToken_);
        if (channelWanted_ && forChannel != found.end()) {
            channelWanted_ = false;
            channelToken_ = forChannel->second.token;
            if (hasNews(forChannel->second)) {
                news = &forChannel->second;
                channelGapEnd_ = Clock::now() + kGap;
            }
        }
        // A tick may have asked for it after the look began.
        again = channelWanted_ && mustLook();
        for (auto next = waiters_.begin(); next != waiters_.end();) {
            const auto changes = found.find(next->second.since);
            if (changes != found.end() && hasNews(changes->second)) {
                told.emplace_back(std::move(next->second), &changes->second);
                next = waiters_.erase(next);
                continue;
            }
            if (changes != found.end())
                next->second.since = changes->second.token;
            ++next;
        }
    }
    for (auto& [waiter, changes] : told)
        waiter.promise.setValue(answerOf(*changes));
    if (news)
        tellChannel(*news);
    if (again)
        postLook();
}

void VariableWatch::tellChannel(const rqe::VariableChanges& changes)
{
    try {
        rqe::ProcessBus::tell(kChannel, json::write(Poco::Dynamic::Var(encodeChanges(changes))));
    } catch (const std::exception&) {
        // The bus is going down.
    }
}

void VariableWatch::lookEnded(const std::exception_ptr& failure)
{
    {
        std::lock_guard lock(mutex_);
        lookQueued_ = false;
    }
    try {
        if (failure)
            std::rethrow_exception(failure);
    } catch (const rqe::EngineError& error) {
        if (error.reason() == rqe::EngineError::Reason::closed)
            failAll(faultOf(failure));
    } catch (...) {
        // An interrupt may have hit the look: who waits is told by the next one.
    }
}

void VariableWatch::failAll(const std::exception_ptr& failure)
{
    std::map<std::uint64_t, Waiter> waiters;
    {
        std::lock_guard lock(mutex_);
        waiters.swap(waiters_);
    }
    for (auto& [id, waiter] : waiters)
        waiter.promise.setException(failure);
}

} // namespace connector::desktop::v1
