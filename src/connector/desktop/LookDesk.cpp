#include "connector/desktop/LookDesk.h"

#include <utility>

#include "connector/core/ServiceFault.h"

namespace connector::desktop::v1 {
namespace {

using Stage = EngineAnswer::Stage;

bool isOverdue(const EngineAnswer& answer, EngineAnswer::Clock::time_point now)
{
    switch (answer.stage()) {
    case Stage::waiting:
        return now - answer.asked >= LookDesk::kPatience;
    case Stage::aside:
        return now - answer.asked >= LookDesk::kMostAside;
    case Stage::running: // nothing else does
    case Stage::settled:
        break;
    }
    return false;
}

std::exception_ptr lockIsKept()
{
    return std::make_exception_ptr(ServiceFault(
        "busy", "The interpreter runs code that lets nobody look: native code that keeps the interpreter's "
                "lock to itself."));
}

} // namespace

MessageFuture LookDesk::ask(const std::shared_ptr<Context>& context, EngineWork work)
{
    auto [future, answer] = lookAtEngine(engine_, context, std::move(work));
    if (answer->stage() != Stage::settled)
        watch(std::move(answer));
    return std::move(future);
}

void LookDesk::watch(std::shared_ptr<EngineAnswer> answer)
{
    {
        std::lock_guard lock(mutex_);
        watched_.push_back(std::move(answer));
        if (std::exchange(ticking_, true))
            return;
    }
    startTick();
}

void LookDesk::startTick()
{
    auto tick = common::TickManager::instance()->every(kTick, [weak = weak_from_this()] {
        if (auto self = weak.lock())
            self->expire();
    });
    std::lock_guard lock(mutex_);
    std::swap(tick, tick_);
}

void LookDesk::expire()
{
    const auto now = EngineAnswer::Clock::now();
    std::vector<std::shared_ptr<EngineAnswer>> overdue;
    common::TickManager::Subscription tick; // ended without the lock, which its callback takes
    {
        std::lock_guard lock(mutex_);
        std::erase_if(watched_, [&](const auto& answer) {
            if (isOverdue(*answer, now))
                overdue.push_back(answer);
            return answer->stage() == Stage::settled || (!overdue.empty() && overdue.back() == answer);
        });
        if (watched_.empty()) {
            ticking_ = false;
            std::swap(tick, tick_);
        }
    }
    for (const auto& answer : overdue) {
        answer->fail(lockIsKept());
        engine_->cancel(answer->id);
    }
}

void LookDesk::stop()
{
    common::TickManager::Subscription tick;
    std::lock_guard lock(mutex_);
    std::swap(tick, tick_);
    ticking_ = false;
    watched_.clear();
}

} // namespace connector::desktop::v1
