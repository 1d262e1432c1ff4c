#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

namespace fl {

/// Whether a thread that waits for work should look for it again and again, or sleep. A processor that went to sleep
/// takes tens of microseconds to wake, longer than many pieces of work take. But a thread that looks gives way to those
/// who have work, and on a busy machine gets the processor back only when the work has waited for it. So it is counted
/// what looking gained and what giving way cost; in debt it is left for a while, twice as long each time. One thread's.
class AdaptiveSpin
{
public:
    using Clock = std::chrono::steady_clock;
    using Duration = Clock::duration;

    /// For the next task of whoever was just answered.
    static constexpr Duration kForNextTask = std::chrono::microseconds(100);
    /// For the answer to what another thread was asked.
    static constexpr Duration kForAnswer = std::chrono::microseconds(40);

    /// There was work: to look for more is worth while for `time`, unless it lately was not.
    void start(Duration time)
    {
        const auto now = Clock::now();
        if (now < until_)
            earn();
        until_ = now < restUntil_ ? Clock::time_point() : now + time;
    }

    bool isActive() const { return until_ != Clock::time_point() && Clock::now() < until_; }

    /// There was none: lets others have the processor.
    void giveWay()
    {
        const auto begin = Clock::now();
        std::this_thread::yield();
        const auto end = Clock::now();
        if (end - begin >= kNoticed)
            pay(end - begin, end);
    }

private:
    static constexpr Duration kNoticed = std::chrono::microseconds(2); ///< by then somebody else was running
    static constexpr Duration kGain = std::chrono::microseconds(20);   ///< of a processor that need not be woken
    static constexpr Duration kFirstCredit = std::chrono::microseconds(100);
    static constexpr Duration kMostCredit = std::chrono::microseconds(500);
    static constexpr Duration kShortestRest = std::chrono::milliseconds(20);
    static constexpr Duration kLongestRest = std::chrono::seconds(2);

    void earn()
    {
        credit_ = std::min(credit_ + kGain, kMostCredit);
        if (credit_ == kMostCredit)
            rest_ = kShortestRest;
    }

    void pay(Duration time, Clock::time_point now)
    {
        credit_ -= time;
        if (credit_ >= Duration::zero())
            return;
        credit_ = kFirstCredit;
        until_ = {};
        restUntil_ = now + rest_;
        rest_ = std::min(2 * rest_, kLongestRest);
    }

    Clock::time_point until_;
    Clock::time_point restUntil_;
    Duration rest_ = kShortestRest;
    Duration credit_ = kFirstCredit;
};

} // namespace fl
