#include "connector/bayeux/SessionSeries.h"

#include <algorithm>

#include "connector/bayeux/Core.h"

namespace connector::bayeux {

SessionSeries::SessionSeries(std::shared_ptr<Session> session, std::string channel, std::uint64_t firstConnect)
    : session_(std::move(session)), channel_(std::move(channel)), firstConnect_(firstConnect)
{}

SessionSeries::~SessionSeries() { session_->forget(*this); }

bool SessionSeries::deliver(EventPtr event) { return session_->deliverIn(*this, event); }

bool SessionSeries::hasRoom() const { return session_->hasRoomFor(*this); }

bool SessionSeries::isAway() const { return lost_ || session_->isAway(); }

void SessionSeries::close() { session_->close(*this); }

std::shared_ptr<BayeuxSeries> Session::openSeries(const std::string& channel, bool again)
{
    const auto core = core_.lock();
    std::shared_ptr<SessionSeries> opened;
    Burst burst(core ? core->limits() : BayeuxLimits());
    {
        std::lock_guard lock(mutex_);
        loseSeries([&](const SessionSeries& known) { return known.channel_ == channel; });
        dropEvents(channel);
        const bool begins = again && !sink_ && !acknowledges_;
        opened = std::make_shared<SessionSeries>(shared_from_this(), channel, begins ? connects_ + 1 : 0);
        opened->lost_ = over_ || !core;
        series_.push_back(opened.get());
        if (begins && held_) {
            held_->deadline = Clock::now();
            burst.released.push_back(shared_from_this());
        }
    }
    if (core)
        core->finish(burst);
    return opened;
}

bool Session::deliverIn(const SessionSeries& series, const EventPtr& event)
{
    const auto core = core_.lock();
    if (!core)
        return false;
    Burst burst(core->limits());
    {
        Lock lock(mutex_);
        receive(lock, event, burst, SendWhen::soon, &series);
    }
    core->finish(burst);
    return !series.isLost();
}

bool Session::hasRoomFor(const SessionSeries& series) const
{
    const auto core = core_.lock();
    if (!core)
        return true;
    const auto limits = core->limits();
    std::lock_guard lock(mutex_);
    return series.lost_ || (connects_ >= series.firstConnect_ && !isCrowded(limits));
}

bool Session::isAway() const
{
    const auto core = core_.lock();
    if (!core)
        return true;
    const auto limits = core->limits();
    std::lock_guard lock(mutex_);
    return over_ || (!sink_ && expectedUntil(limits) <= Clock::now());
}

void Session::close(SessionSeries& series)
{
    std::lock_guard lock(mutex_);
    if (!series.lost_)
        loseSeries([&](const SessionSeries& known) { return &known == &series; });
}

void Session::forget(const SessionSeries& series)
{
    std::lock_guard lock(mutex_);
    std::erase(series_, &series);
}

/// Those of which nothing is to arrive any more. Lock held.
void Session::loseSeries(const std::function<bool(const SessionSeries&)>& which)
{
    for (auto* series : series_) {
        if (series->lost_ || !which(*series))
            continue;
        series->lost_ = true;
        dropEvents(series->channel_);
    }
}

void Session::dropEvents(const std::string& channel)
{
    queue_.drop(channel);
    if (delivering_)
        droppedMeanwhile_.push_back(channel);
}

} // namespace connector::bayeux
