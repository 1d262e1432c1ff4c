#include "connector/http/engine/Loop.h"

#include <ctime>

#include <boost/asio/post.hpp>

#include "connector/common/Log.h"
#include "connector/http/engine/Connection.h"
#include "connector/http/engine/Peer.h"

namespace connector::http::engine {

namespace asio = boost::asio;

namespace {

constexpr unsigned kMostPostponed = 32;
/// Of what is run without looking at the other clients.
constexpr unsigned kMostInARow = 64;
constexpr std::chrono::microseconds kShortestGather{20};
constexpr std::chrono::milliseconds kLongestGather{1};
constexpr std::chrono::milliseconds kLoadWindow{100};

/// Often enough that no time limit is overrun by more than a quarter, and never more than by a second.
std::chrono::milliseconds sweepIntervalOf(const ServerCore& core)
{
    const auto shortest = std::min({core.settings.headTimeout, core.settings.bodyTimeout, core.settings.bodyRateGrace,
                                    core.settings.lingerTimeout, core.idleTimeout, core.writeTimeout});
    return std::clamp(shortest / 4, std::chrono::milliseconds(5), std::chrono::milliseconds(1'000));
}

std::chrono::nanoseconds cpuTimeOfThread()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

} // namespace

Loop::Loop(std::shared_ptr<ServerCore> core)
    : core_(std::move(core)), work_(asio::make_work_guard(context_)), sweepTimer_(context_), stopTimer_(context_),
      gatherTimer_(context_), lateTimer_(context_), sweepInterval_(sweepIntervalOf(*core_))
{}

Loop::~Loop() = default;

void Loop::run()
{
    sweepLater();
    for (;;) {
        try {
            while (context_.run_one() > 0)
                while (runWhileAwake()) {
                }
            return;
        } catch (const std::exception& error) {
            common::log("connector.http", common::LogLevel::error,
                        std::string("A connection's work failed: ") + error.what());
        }
    }
}

/// False when nothing came in time.
bool Loop::runWhileAwake()
{
    if (awakeWanted_.load(std::memory_order_relaxed)) {
        awakeWanted_.store(false, std::memory_order_relaxed);
        spin_.start(fl::AdaptiveSpin::kForAnswer);
    }
    while (spin_.isActive()) {
        const auto begin = Clock::now();
        if (context_.poll_one() > 0)
            return true;
        spin_.giveWay(); // whoever is to answer may need this processor for it
        spun_ += Clock::now() - begin;
    }
    return false;
}

void Loop::adopt(Stream::Socket socket, bool isUnix, bool welcome, std::unique_ptr<ConnectionCount> count)
{
    if (stopping_)
        return;
    welcome = welcome || strangers_.dismissOne();
    Stream stream(std::move(socket), isUnix ? nullptr : core_->tls.get());
    auto connection = std::make_shared<Connection>(std::move(stream), *this, std::move(count));
    add(connection);
    connection->start(welcome);
}

void Loop::add(std::shared_ptr<Peer> peer)
{
    Peer* const key = peer.get();
    peers_.emplace(key, std::move(peer));
}

void Loop::remove(Peer& peer)
{
    peers_.erase(&peer);
    if (stopping_ && peers_.empty())
        stopTimer_.cancel();
}

void Loop::runSoon()
{
    for (unsigned i = 0; i < kMostInARow && !soon_.empty(); ++i) {
        const auto next = std::move(soon_.front());
        soon_.pop_front();
        next->run();
    }
}

/// What is left has to wait for a turn of its own.
void Loop::endTurn()
{
    inTurn_ = false;
    if (!soon_.empty())
        asio::post(context_, [this] { inTurn([] {}); });
}

/// True for the first on the list; the others are about to be called with it.
bool Loop::enlist(PeerList& list, std::weak_ptr<Peer> peer)
{
    std::lock_guard lock(wakeMutex_);
    list.push_back(std::move(peer));
    return list.size() == 1;
}

void Loop::callAll(PeerList& list, void (Peer::*call)())
{
    PeerList woken;
    {
        std::lock_guard lock(wakeMutex_);
        woken.swap(list);
    }
    for (const auto& weak : woken)
        if (const auto alive = weak.lock())
            (alive.get()->*call)();
}

void Loop::wake(std::weak_ptr<Peer> peer)
{
    if (enlist(woken_, std::move(peer)))
        asio::post(context_, [this] { callWokenSoon(); });
}

/// What has been read already may have more for the same clients. And where a crowd is served, what comes for its
/// members in a while as long as that took goes out in one piece each, at a fraction of the cost.
void Loop::callWokenSoon()
{
    if (inputs_ != inputsSeen_ && ++postponed_ < kMostPostponed) {
        inputsSeen_ = inputs_;
        asio::post(context_, [this] { callWokenSoon(); });
        return;
    }
    postponed_ = 0;
    if (stopping_ || Clock::now() >= gatherUntil_)
        return callWoken();
    gatherTimer_.expires_at(gatherUntil_);
    gatherTimer_.async_wait([this](const boost::system::error_code&) { callWoken(); });
}

void Loop::callWoken()
{
    const auto begin = Clock::now();
    callAll(woken_, &Peer::woken);
    const auto end = Clock::now();
    if (end - begin >= kShortestGather)
        gatherUntil_ = end + std::min<std::chrono::nanoseconds>(end - begin, kLongestGather);
}

void Loop::wakeLate(std::weak_ptr<Peer> peer)
{
    if (!enlist(wokenLate_, std::move(peer)))
        return;
    asio::post(context_, [this] {
        if (stopping_)
            return callWokenLate();
        lateTimer_.expires_after(kLateness);
        lateTimer_.async_wait([this](const boost::system::error_code&) { callWokenLate(); });
    });
}

void Loop::callWokenLate() { callAll(wokenLate_, &Peer::wokenLate); }

void Loop::stop()
{
    if (stopping_)
        return;
    stopping_ = true;
    sweepTimer_.cancel();
    gatherTimer_.cancel();
    lateTimer_.cancel();

    std::vector<std::shared_ptr<Peer>> open;
    open.reserve(peers_.size());
    for (const auto& [key, peer] : peers_)
        open.push_back(peer);
    for (const auto& peer : open)
        peer->stop();

    if (!peers_.empty()) {
        stopTimer_.expires_after(core_->settings.stopTimeout);
        stopTimer_.async_wait([this](const boost::system::error_code& error) {
            if (error)
                return;
            while (!peers_.empty()) {
                const auto peer = peers_.begin()->second;
                peer->close();
            }
        });
    }
    work_.reset();
}

void Loop::sweepLater()
{
    sweepTimer_.expires_after(sweepInterval_);
    sweepTimer_.async_wait([this](const boost::system::error_code& error) {
        if (!error && !stopping_) {
            sweep();
            measureLoad();
            sweepLater();
        }
    });
}

void Loop::measureLoad()
{
    const auto now = Clock::now();
    const auto elapsed = now - measuredAt_;
    if (elapsed < kLoadWindow)
        return;
    const auto cpuTime = cpuTimeOfThread() - spun_;
    // Others may have had the processor while this thread looked for work.
    load_ = std::max(0.0, std::chrono::duration<double>(cpuTime - cpuTime_) / std::chrono::duration<double>(elapsed));
    measuredAt_ = now;
    cpuTime_ = cpuTime;
}

void Loop::sweep()
{
    const auto now = Clock::now();
    std::vector<std::shared_ptr<Peer>> late;
    for (const auto& [key, peer] : peers_) {
        if (peer->isLate(now))
            late.push_back(peer);
    }
    for (const auto& peer : late)
        peer->giveUp();
}

} // namespace connector::http::engine
