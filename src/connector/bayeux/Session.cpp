#include "connector/bayeux/Session.h"

#include "connector/bayeux/Core.h"
#include "connector/common/Secret.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

namespace {

constexpr std::size_t kIdBytes = 20;
constexpr std::size_t kPublicIdBytes = 8;
/// How often who waits for room looks whether he is to go on.
constexpr std::chrono::milliseconds kLook{3};
/// That soon after a reply a client comes with its next connect, if it comes at all.
constexpr std::chrono::milliseconds kWayBack{1'000};

std::string joined(const EventQueue::Events& events, std::string_view last)
{
    std::size_t size = last.size();
    for (const auto& event : events)
        size += event->text().size() + 1;
    std::string text;
    text.reserve(size);
    for (const auto& event : events)
        text.append(text.empty() ? "" : ",").append(event->text());
    if (!last.empty())
        text.append(text.empty() ? "" : ",").append(last);
    return text;
}

std::shared_ptr<const std::string> frameOf(const std::string& messages)
{
    return std::make_shared<const std::string>('[' + messages + ']');
}

} // namespace

Session::Session(std::weak_ptr<Core> core, std::shared_ptr<BrowserPolls> polls, std::shared_ptr<DueSessions> due,
                 const BayeuxOrigin& origin, bool acknowledges)
    : core_(std::move(core)), polls_(std::move(polls)), due_(std::move(due)), id_(common::randomHex(kIdBytes)),
      publicId_(common::randomHex(kPublicIdBytes)), httpSessionId_(origin.httpSessionId),
      peerAddress_(origin.peerAddress), acknowledges_(acknowledges)
{}

Session::~Session() { due_->move({}, this, notedDue_, Clock::time_point::max()); }

bool Session::isOver() const
{
    std::lock_guard lock(mutex_);
    return over_;
}

bool Session::send(const EventPtr& event, SendWhen when)
{
    const auto core = core_.lock();
    if (!core || isOver())
        return false;
    Burst burst(core->limits());
    receive(event, burst, when);
    const bool overflowed = !burst.overflowed.empty();
    core->finish(burst);
    return !overflowed && !isOver();
}

bool Session::hasRoom() const
{
    const auto core = core_.lock();
    if (!core)
        return true;
    const auto limits = core->limits();
    std::lock_guard lock(mutex_);
    return over_ || !isCrowded(limits);
}

/// Lock held.
bool Session::isCrowded(const BayeuxLimits& limits) const
{
    return queue_.isCrowded(limits) || (sink_ && sink_->queuedBytes() > limits.queueBytes / 2);
}

void Session::disconnect()
{
    if (const auto core = core_.lock())
        core->kick(shared_from_this());
}

void Session::receive(const EventPtr& event, Burst& burst, SendWhen when)
{
    Lock lock(mutex_);
    receive(lock, event, burst, when, nullptr);
}

/// `series`: which it belongs to, or null.
void Session::receive(Lock&, const EventPtr& event, Burst& burst, SendWhen when, const SessionSeries* series)
{
    if (over_ || (series && series->lost_))
        return;
    if (pushesToSink() && queue_.empty() && !event->isLazy()) {
        if (sink_->queuedBytes() + event->frame()->size() > burst.limits.queueBytes) {
            burst.overflowed.push_back(shared_from_this());
            return;
        }
        if (sink_->send(event->frame(), when)) {
            ++burst.delivered;
            return;
        }
        dropSink();
        if (series && series->lost_)
            return updateDue(burst.limits);
    }
    if (!queue_.push(event, burst.limits, burst.droppedLazy)) {
        burst.overflowed.push_back(shared_from_this());
        return;
    }
    if (pushesToSink() && queue_.isUrgent(Clock::now()))
        flushToSink(burst.limits, burst.delivered);
    if (held_ && !inBurst_ && !queue_.empty() && !event->isLazy()) {
        inBurst_ = true;
        burst.released.push_back(shared_from_this());
    }
    updateDue(burst.limits);
}

void Session::flushToSink(const BayeuxLimits& limits, std::uint64_t& delivered)
{
    auto events = queue_.take(false);
    if (events.empty())
        return;
    if (sink_->queuedBytes() <= limits.queueBytes && sink_->send(frameOf(joined(events, {})), SendWhen::soon)) {
        delivered += events.size();
        return;
    }
    queue_.restore(std::move(events), false);
    dropSink();
}

/// The connection is over, or takes no more: what comes now waits for the next connect.
void Session::dropSink()
{
    if (held_ && held_->sink == sink_)
        held_.reset();
    setSink(nullptr);
    lost_ = true;
    touch();
}

void Session::setSink(Sink sink)
{
    if (sink != sink_ && !acknowledges_)
        loseSeries([](const SessionSeries&) { return true; });
    sink_ = std::move(sink);
    sinkInUse_ = sink_.get();
}

void Session::touch() { lastReply_ = Clock::now(); }

/// Until when a client that is not connected is taken for one on its way back. A connection that broke has nobody
/// behind it that could be waited for.
Session::Clock::time_point Session::expectedUntil(const BayeuxLimits& limits) const
{
    if (held_ || pushesToSink())
        return Clock::time_point::max();
    return lost_ ? Clock::time_point() : lastReply_ + limits.interval + kWayBack;
}

/// Whether there is room, after waiting for it at most `time`.
bool Session::waitOnce(Lock& lock, std::chrono::milliseconds time, const BayeuxLimits& limits)
{
    if (pushesToSink()) {
        const Sink sink = sink_;
        lock.unlock();
        const bool room = sink->waitForRoom(time);
        lock.lock();
        return room;
    }
    const auto hasRoom = [&] { return over_ || pushesToSink() || !queue_.isCrowded(limits); };
    if (time.count() == 0)
        return hasRoom();
    ++waiting_;
    const bool room = room_.wait_for(lock, time, hasRoom);
    --waiting_;
    return room;
}

std::size_t Session::backlogLocked() const { return pushesToSink() ? sink_->queuedBytes() : queue_.bytes(); }

/// Until it has read half of what waited when it stood still.
bool Session::standsStill()
{
    if (2 * backlogLocked() < stillAt_)
        stillAt_ = 0;
    return stillAt_ > 0;
}

std::size_t Session::backlog() const
{
    std::lock_guard lock(mutex_);
    return backlogLocked();
}

bool Session::isBehind(const BayeuxLimits& limits)
{
    Lock lock(mutex_);
    return !waitOnce(lock, std::chrono::milliseconds(0), limits) && !standsStill() &&
           expectedUntil(limits) > Clock::now();
}

bool Session::waitForRoom(const Patience& patience, const BayeuxLimits& limits)
{
    Lock lock(mutex_);
    std::chrono::milliseconds time(0);
    while (!waitOnce(lock, time, limits)) {
        const auto left = std::min(patience.until, expectedUntil(limits)) - Clock::now();
        if (left <= Clock::duration::zero()) {
            stillAt_ = backlogLocked();
            return true;
        }
        lock.unlock();
        if (patience.goOn && !patience.goOn())
            return false;
        lock.lock();
        time = std::min(std::chrono::ceil<std::chrono::milliseconds>(left), kLook);
    }
    return true;
}

void Session::noteProgress(std::size_t backlogBefore)
{
    std::lock_guard lock(mutex_);
    if (backlogLocked() >= backlogBefore)
        stillAt_ = backlogBefore;
}

void Session::updateDue(const BayeuxLimits& limits)
{
    if (waiting_ > 0)
        room_.notify_all();
    auto due = Clock::time_point::max();
    if (held_)
        due = held_->deadline;
    else if (!sink_)
        due = lastReply_ + limits.maxInterval + limits.interval;
    if (held_ || pushesToSink())
        due = std::min(due, queue_.lazyDue());
    // What is put off is seen when it would have been due: a client that comes and goes moves nothing.
    if (due < notedDue_)
        noteDue(due);
}

void Session::noteDue(Clock::time_point due)
{
    due_->move(weak_from_this(), this, notedDue_, due);
    notedDue_ = due;
}

bool Session::belongsTo(const BayeuxOrigin& origin, bool isConnect) const
{
    if (!httpSessionId_.empty())
        return origin.httpSessionId == httpSessionId_;
    // Without an HTTP session the id alone is the proof; a connection that lives is left to its owner, but a client
    // that lost it takes up again with a connect before this side knows.
    const auto* const inUse = sinkInUse_.load();
    return isConnect || !inUse || !origin.webSocket || inUse == origin.webSocket.get();
}

bool Session::hasEvents() const
{
    std::lock_guard lock(mutex_);
    return !queue_.empty();
}

BayeuxSessionInfo Session::describe() const
{
    BayeuxSessionInfo info;
    info.publicId = publicId_;
    info.peerAddress = peerAddress_;
    std::lock_guard lock(mutex_);
    info.webSocket = sink_ != nullptr;
    info.queued = queue_.size();
    return info;
}

void Session::use(const Sink& sink, const BayeuxLimits& limits)
{
    if (sinkInUse_ == sink.get())
        return; // without waiting for whoever sends an answer to the last message
    std::lock_guard lock(mutex_);
    if (over_)
        return;
    setSink(sink);
    lost_ = false;
    std::uint64_t delivered = 0;
    if (pushesToSink() && queue_.isUrgent(Clock::now()))
        flushToSink(limits, delivered);
    updateDue(limits);
}

void Session::unuse(const BayeuxChannelSink& sink, const BayeuxLimits& limits)
{
    std::lock_guard lock(mutex_);
    if (sink_.get() == &sink)
        dropSink();
    updateDue(limits);
}

Session::Connected Session::connect(const Connect& request, const BayeuxOrigin& origin, const BayeuxLimits& limits)
{
    Connected connected;
    std::optional<Held> superseded;
    {
        Lock lock(mutex_);
        connected.isOver = over_;
        if (over_)
            return connected;
        lost_ = false;
        superseded = std::exchange(held_, std::nullopt);
        if (superseded)
            superseded->poll.reset();
        if (sink_ && sink_ != origin.webSocket)
            setSink(nullptr);
        connects_ += origin.webSocket ? 0 : 1;
        if (acknowledges_ && request.acknowledged)
            queue_.acknowledge(*request.acknowledged);

        const bool first = !std::exchange(connected_, true);
        if (first)
            advice_.clear();
        const auto now = Clock::now();
        const auto wait =
            std::clamp(request.timeout.value_or(limits.timeout), std::chrono::milliseconds(0), limits.timeout);
        auto advice = adviceText(Reconnect::retry, limits);
        bool answer = first || !request.alone || wait.count() == 0 || (queue_.isUrgent(now) && !delivering_);
        std::shared_ptr<void> poll;
        if (!answer && !origin.webSocket && !origin.httpSessionId.empty()) {
            poll = polls_->enter(origin.httpSessionId, limits.pollsOfOneBrowser);
            if (!poll) {
                answer = true;
                advice = multipleClientsAdvice(limits);
            }
        }
        connected.isHeld = !answer;
        if (answer)
            connected.text =
                answerNow(request, origin.webSocket, changedAdvice(std::move(advice)), connected.delivered);
        else
            connected.answer = hold(request, origin, now + wait, std::move(poll));
        updateDue(limits);
    }
    answerSuperseded(std::move(superseded), id_);
    return connected;
}

/// Without events, which the newer connect takes, and without advice, which would reach a client that is well.
void Session::answerSuperseded(std::optional<Held> held, const std::string& clientId)
{
    if (!held)
        return;
    const auto text = Reply("/meta/connect", false)
                          .addText("clientId", clientId)
                          .addId(held->id)
                          .addError({409, "", "Another connect took its place"})
                          .take();
    if (held->sink)
        held->sink->send(frameOf(text), SendWhen::soon);
    else
        held->promise.setValue('[' + text + ']');
}

Future<std::string> Session::hold(const Connect& request, const BayeuxOrigin& origin, Clock::time_point deadline,
                                  std::shared_ptr<void> poll)
{
    held_.emplace(Held{request.id, deadline, Promise<std::string>(), origin.webSocket, std::move(poll), ++lastHeld_});
    if (origin.webSocket)
        return {};
    held_->promise.onCancel([weak = weak_from_this(), number = lastHeld_] {
        if (const auto self = weak.lock())
            self->cancelled(number);
    });
    return held_->promise.future();
}

/// The client went away: its queue stays.
void Session::cancelled(std::uint64_t number)
{
    const auto core = core_.lock();
    std::optional<Held> dropped;
    std::lock_guard lock(mutex_);
    if (held_ && held_->number == number) {
        dropped.swap(held_);
        lost_ = true;
        touch();
        advice_.clear();
        if (core)
            updateDue(core->limits());
    }
}

/// Events for a WebSocket go through the sink, so that none that is pushed later overtakes them.
std::string Session::answerNow(const Connect& request, const Sink& sink, const std::string& advice,
                               std::uint64_t& delivered)
{
    touch();
    auto events = queue_.take(acknowledges_);
    auto text = reply(request.id, advice, events);
    if (!sink || events.empty()) {
        delivered += events.size();
        return text;
    }
    if (sink->send(frameOf(text), SendWhen::soon)) {
        delivered += events.size();
    } else {
        queue_.restore(std::move(events), acknowledges_);
        dropSink();
    }
    return {};
}

std::string Session::changedAdvice(std::string advice)
{
    if (advice == advice_)
        return {};
    return advice_ = std::move(advice);
}

std::string Session::reply(const std::string& id, const std::string& advice, const EventQueue::Events& events)
{
    Reply last("/meta/connect", true);
    last.addText("clientId", id_).addId(id);
    if (!advice.empty())
        last.add("advice", advice);
    if (acknowledges_)
        last.add("ext", R"({"ack":)" + std::to_string(queue_.batch()) + '}');
    return joined(events, last.take());
}

std::string Session::takeAlong(const BayeuxLimits& limits, std::uint64_t& delivered)
{
    std::lock_guard lock(mutex_);
    if (over_ || sink_ || acknowledges_ || delivering_ || !series_.empty() || !queue_.isUrgent(Clock::now()))
        return {};
    const auto events = queue_.take(false);
    delivered += events.size();
    updateDue(limits);
    return joined(events, {});
}

void Session::release(const BayeuxLimits& limits, std::uint64_t& delivered)
{
    Lock lock(mutex_);
    inBurst_ = false;
    pump(lock, limits, Clock::now(), delivered);
}

void Session::pump(Lock& lock, const BayeuxLimits& limits, Clock::time_point now, std::uint64_t& delivered)
{
    if (pushesToSink() && queue_.isUrgent(now))
        flushToSink(limits, delivered);
    while (!delivering_ && held_ && (held_->deadline <= now || queue_.isUrgent(now))) {
        auto held = std::move(*held_);
        held_.reset();
        held.poll.reset();
        auto events = queue_.take(acknowledges_);
        const auto text = reply(held.id, changedAdvice(adviceText(Reconnect::retry, limits)), events);
        bool sent = false;
        if (held.sink) {
            sent = held.sink->send(frameOf(text), SendWhen::soon);
        } else {
            delivering_ = true;
            lock.unlock();
            sent = held.promise.setValue('[' + text + ']');
            lock.lock();
            delivering_ = false;
        }
        if (sent)
            delivered += events.size();
        else if (!over_)
            queue_.restore(std::move(events), acknowledges_);
        if (!sent) {
            advice_.clear();
            if (held.sink && sink_ == held.sink)
                dropSink();
        }
        for (const auto& channel : std::exchange(droppedMeanwhile_, {}))
            queue_.drop(channel);
        touch();
    }
    updateDue(limits);
}

bool Session::sweep(Clock::time_point now, std::chrono::milliseconds period, const BayeuxLimits& limits,
                    std::uint64_t& delivered)
{
    Lock lock(mutex_);
    if (over_)
        return false;
    if (notedDue_ <= now + period)
        notedDue_ = Clock::time_point::max(); // it was taken
    pump(lock, limits, now + period, delivered);
    return !held_ && !sink_ && !delivering_ && lastReply_ + limits.maxInterval + limits.interval <= now;
}

bool Session::end(Reconnect reconnect, const BayeuxLimits& limits, bool closeSink)
{
    std::optional<Held> held;
    Sink sink;
    {
        std::lock_guard lock(mutex_);
        if (std::exchange(over_, true))
            return false;
        held.swap(held_);
        sink = sink_;
        setSink(nullptr);
        loseSeries([](const SessionSeries&) { return true; });
        queue_.clear();
        room_.notify_all();
        noteDue(Clock::time_point::max());
    }
    if (held) {
        Reply last("/meta/connect", reconnect == Reconnect::none);
        last.addText("clientId", id_).addId(held->id).add("advice", adviceText(reconnect, limits));
        if (reconnect != Reconnect::none)
            last.addError({402, id_, "The session is over"});
        const auto text = last.take();
        held->poll.reset();
        if (held->sink)
            held->sink->send(frameOf(text), SendWhen::soon);
        else
            held->promise.setValue('[' + text + ']');
    }
    if (sink && closeSink)
        sink->close();
    return true;
}

} // namespace connector::bayeux
