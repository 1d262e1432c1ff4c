#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "connector/http/engine/ResponseHead.h"
#include "connector/http/engine/ServerCore.h"
#include "connector/http/engine/Strangers.h"
#include "connector/http/engine/Stream.h"
#include "platform/fl/adaptive_spin.h"

namespace connector::http::engine {

class Peer;

/// One I/O thread's share of the clients. A client stays with its loop, so that none of its state is locked.
/// Everything but `context`, `run`, `load`, `wake`, `wakeLate` and `stayAwakeFor` belongs to the loop's own thread.
class Loop final : public std::enable_shared_from_this<Loop>
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kLateness{2};

    explicit Loop(std::shared_ptr<ServerCore> core);
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// The thread's body: returns once it was stopped and the last connection is closed.
    void run();
    boost::asio::io_context& context() noexcept { return context_; }

    ServerCore& core() noexcept { return *core_; }
    const std::shared_ptr<ServerCore>& sharedCore() const noexcept { return core_; }
    const std::string& date() { return date_.at(std::time(nullptr)); }
    bool isStopping() const noexcept { return stopping_; }

    /// The share of a processor that the loop lately took, 0 to 1. Any thread.
    double load() const noexcept { return load_.load(std::memory_order_relaxed); }

    /// Has `woken` called on the loop's thread, once for all who are woken meanwhile: soon, or, where that took long
    /// the last time, after a pause of that length. Any thread.
    void wake(std::weak_ptr<Peer> peer);
    /// Has `wokenLate` called on the loop's thread within kLateness. Any thread.
    void wakeLate(std::weak_ptr<Peer> peer);

    /// `client` asked for something that another thread often answers within microseconds. Where nobody else asked
    /// since its last time, the loop's thread looks for work for a moment before it sleeps, as then its processor would
    /// too, and takes longer to wake than that. Any thread.
    void stayAwakeFor(const void* client) noexcept
    {
        if (asker_.exchange(client, std::memory_order_relaxed) == client)
            awakeWanted_.store(true, std::memory_order_relaxed);
    }

    /// Runs `work` after the handler that is running, if that is one of `inTurn`, else in turn with everything else.
    /// The loop's thread.
    template <class Work>
    void runSoon(Work&& work)
    {
        if (inTurn_)
            soon_.push_back(std::make_unique<SoonWork<std::decay_t<Work>>>(std::forward<Work>(work)));
        else
            boost::asio::post(context_,
                              [taken = std::decay_t<Work>(std::forward<Work>(work))]() mutable { std::move(taken)(); });
    }
    /// Runs a handler and then what is to run soon.
    template <class Handler>
    void inTurn(Handler&& handler)
    {
        if (inTurn_)
            return handler();
        inTurn_ = true;
        const TurnEnd end{*this};
        handler();
        runSoon();
    }
    /// Room to read into for what is passed on at once.
    std::span<char> scratch() noexcept { return scratch_; }

    /// A client's bytes were read, or a message taken from them; there may be more, for the same receivers.
    void noteInput() noexcept { ++inputs_; }

    /// Those of its clients that nobody has let in yet.
    Strangers& strangers() noexcept { return strangers_; }

    /// `welcome` is false for a connection beyond the limit: a stranger leaves for it, or it gets 503.
    void adopt(Stream::Socket socket, bool isUnix, bool welcome, std::unique_ptr<ConnectionCount> count);
    /// A connection that became something else.
    void add(std::shared_ptr<Peer> peer);
    void remove(Peer& peer);
    void stop();

private:
    struct Soon
    {
        virtual ~Soon() = default;
        virtual void run() = 0;
    };
    template <class Work>
    struct SoonWork final : Soon
    {
        template <class Given>
        explicit SoonWork(Given&& given) : work(std::forward<Given>(given))
        {}
        void run() override { std::move(work)(); }
        Work work;
    };

    struct TurnEnd
    {
        Loop& loop;
        ~TurnEnd() { loop.endTurn(); }
    };

    using PeerList = std::vector<std::weak_ptr<Peer>>;

    bool runWhileAwake();
    void runSoon();
    void endTurn();
    bool enlist(PeerList& list, std::weak_ptr<Peer> peer);
    void callAll(PeerList& list, void (Peer::*call)());
    void callWokenSoon();
    void callWoken();
    void callWokenLate();
    void sweepLater();
    void sweep();
    void measureLoad();

    const std::shared_ptr<ServerCore> core_; // these two before the context, whose end may destroy connections
    Strangers strangers_;
    boost::asio::io_context context_{1};
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work_;
    boost::asio::steady_timer sweepTimer_;
    boost::asio::steady_timer stopTimer_;
    boost::asio::steady_timer gatherTimer_;
    boost::asio::steady_timer lateTimer_;
    Clock::time_point gatherUntil_;
    std::uint64_t inputs_ = 0;
    std::uint64_t inputsSeen_ = 0;
    unsigned postponed_ = 0;
    std::chrono::milliseconds sweepInterval_;
    std::atomic<double> load_{0.0};
    Clock::time_point measuredAt_{};
    std::chrono::nanoseconds cpuTime_{};       ///< without `spun_`
    std::atomic<const void*> asker_ = nullptr; ///< the last one of `stayAwakeFor`
    std::atomic<bool> awakeWanted_ = false;
    fl::AdaptiveSpin spin_;
    std::chrono::nanoseconds spun_{}; ///< time spent looking for work that did not come
    std::unordered_map<Peer*, std::shared_ptr<Peer>> peers_;
    std::deque<std::unique_ptr<Soon>> soon_;
    bool inTurn_ = false;
    std::array<char, 64u << 10> scratch_;
    DateText date_;
    bool stopping_ = false;

    std::mutex wakeMutex_;
    PeerList woken_;
    PeerList wokenLate_;
};

} // namespace connector::http::engine
