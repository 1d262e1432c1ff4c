#include "connector/desktop/StateNews.h"

#include <exception>
#include <utility>

#include <Poco/JSON/Object.h>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"
#include "platform/rqe/MessageBus.h"

namespace connector::desktop::v1 {
namespace {

void tell(const char* channel, const Poco::JSON::Object::Ptr& data)
{
    try {
        rqe::ProcessBus::tell(channel, json::write(Poco::Dynamic::Var(data)));
    } catch (const std::exception&) {
        // The bus is going down.
    }
}

void tellState(const char* state, std::size_t queued)
{
    auto data = json::makeObject();
    data->set("state", state);
    data->set("queued", static_cast<std::uint64_t>(queued));
    tell(StateNews::kStateChannel, data);
}

} // namespace

void StateNews::start()
{
    {
        std::lock_guard lock(mutex_);
        stopped_ = false;
    }
    if (engine_)
        engine_->addListener(shared_from_this());
}

void StateNews::stop()
{
    if (engine_)
        engine_->removeListener(this);
    common::TickManager::Subscription tick; // ended without the lock, which its callback takes
    std::lock_guard lock(mutex_);
    stopped_ = true;
    ticking_ = toldBusy_ = false;
    std::swap(tick, tick_);
}

void StateNews::folderChanged(const std::string& folder)
{
    if (!rqe::ProcessBus::hasSubscribers(kFolderChannel))
        return;
    auto data = json::makeObject();
    data->set("folder", folder);
    tell(kFolderChannel, data);
}

void StateNews::workBegins()
{
    const bool watched = rqe::ProcessBus::hasSubscribers(kStateChannel);
    {
        std::lock_guard lock(mutex_);
        ++work_;
        if (!watched || !wantsTick())
            return;
    }
    tick();
}

void StateNews::listed()
{
    if (!engine_ || engine_->state() != rqe::RQE::State::busy || !rqe::ProcessBus::hasSubscribers(kStateChannel))
        return;
    {
        std::lock_guard lock(mutex_);
        tellAgain_ = true;
        if (!wantsTick())
            return;
    }
    tick();
}

bool StateNews::wantsTick()
{
    if (stopped_ || std::exchange(ticking_, true))
        return false;
    lastWork_ = 0;
    return true;
}

void StateNews::tick()
{
    auto tick = common::TickManager::instance()->every(kTick, [weak = weak_from_this()] {
        if (auto self = weak.lock())
            self->sample();
    });
    std::lock_guard lock(mutex_);
    if (!stopped_)
        std::swap(tick, tick_);
}

void StateNews::variablesMayHaveChanged()
{
    const std::size_t waiting = queued();
    {
        std::lock_guard lock(mutex_);
        // What begins next may be part of the same stretch of work: then the tick finds it idle later.
        if (!toldBusy_ || waiting > 0)
            return;
        toldBusy_ = false;
    }
    tellState("idle", 0);
}

std::size_t StateNews::queued() const
{
    const std::size_t all = engine_->queued();
    return all > 0 && watch_->lookIsQueued() ? all - 1 : all;
}

void StateNews::sample()
{
    common::TickManager::Subscription tick;
    const bool busy = engine_->state() == rqe::RQE::State::busy;
    const std::size_t waiting = queued();
    const char* news = nullptr;
    {
        std::lock_guard lock(mutex_);
        const bool lasts = busy && (toldBusy_ || lastWork_ == work_);
        lastWork_ = work_;
        if (lasts && (!toldBusy_ || toldQueued_ != waiting || tellAgain_))
            news = "busy";
        if (!busy && toldBusy_)
            news = "idle";
        toldBusy_ = lasts;
        toldQueued_ = waiting;
        tellAgain_ = tellAgain_ && busy && !lasts;
        if (!busy) {
            ticking_ = false;
            std::swap(tick, tick_);
        }
    }
    if (news)
        tellState(news, waiting);
}

} // namespace connector::desktop::v1
