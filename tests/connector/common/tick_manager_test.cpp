#include "connector/common/TickManager.h"

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "connector/common/Log.h"

namespace {

using namespace connector::common;
using namespace std::chrono_literals;

/// Counts, and lets another thread wait for a count.
class Counter
{
public:
    void add()
    {
        std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool reaches(int count)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return count_ >= count; });
    }
    int count()
    {
        std::lock_guard lock(mutex_);
        return count_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

TEST(TickManager, CallsEachSubscriptionAgainAndAgainUntilItEnds)
{
    TickManager ticks;
    Counter first;
    Counter second;
    auto one = ticks.every(1ms, [&] { first.add(); });
    auto two = ticks.every(2ms, [&] { second.add(); });
    EXPECT_TRUE(first.reaches(3));
    EXPECT_TRUE(second.reaches(3));

    one.reset();
    const int after = first.count();
    const int reached = second.count();
    EXPECT_TRUE(second.reaches(reached + 5));
    EXPECT_EQ(first.count(), after);
    EXPECT_THROW((void)ticks.every(1ms, nullptr), std::invalid_argument);
}

TEST(TickManager, FailingCallbackIsLoggedOnceAndHarmsNobody)
{
    TickManager ticks;
    Counter failing;
    Counter other;
    testing::internal::CaptureStderr();
    auto one = ticks.every(1ms, [&] {
        failing.add();
        throw std::runtime_error("out of luck");
    });
    auto two = ticks.every(1ms, [&] { other.add(); });
    EXPECT_TRUE(failing.reaches(3));
    EXPECT_TRUE(other.reaches(3));
    one.reset();
    const auto text = testing::internal::GetCapturedStderr();
    const auto found = text.find("out of luck");
    EXPECT_NE(found, std::string::npos);
    EXPECT_EQ(text.find("out of luck", found + 1), std::string::npos);
}

TEST(TickManager, EndingWaitsForTheRunningCallbackOnly)
{
    TickManager ticks;
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> returned{false};
    bool once = true;
    auto subscription = ticks.every(1ms, [&, gate = release.get_future().share()] {
        if (!std::exchange(once, false))
            return;
        entered.set_value();
        gate.wait();
        returned = true;
    });
    entered.get_future().get();
    auto ending = std::async(std::launch::async, [&] {
        subscription.reset();
        return returned.load();
    });
    EXPECT_EQ(ending.wait_for(20ms), std::future_status::timeout) << "it did not wait";
    release.set_value();
    EXPECT_TRUE(ending.get());
}

TEST(TickManager, CallbackMayEndItselfItsManagerAndTheInstance)
{
    TickManager ticks;
    Counter own;
    TickManager::Subscription subscription;
    std::mutex assigned;
    {
        std::lock_guard lock(assigned);
        subscription = ticks.every(1ms, [&] {
            std::lock_guard hold(assigned);
            subscription.reset();
            own.add();
        });
    }
    EXPECT_TRUE(own.reaches(1));

    for (int round = 0; round < 20; ++round) {
        std::promise<void> ended;
        auto instance = TickManager::instance();
        auto kept = instance->every(1ms, [] {});
        std::atomic<bool> first{true};
        auto ending = instance->every(1ms, [&] {
            if (!first.exchange(false))
                return;
            TickManager::destructInstance();
            ended.set_value();
        });
        ended.get_future().get();
        EXPECT_NE(TickManager::instance(), instance);
        // The old instance is inert: new subscriptions are never called, old ones end at once.
        auto inert = instance->every(1ms, [] { ADD_FAILURE(); });
        kept.reset();
        ending.reset();
    }
    TickManager::destructInstance();
    TickManager::destructInstance();
}

TEST(TickManager, LastOwnerMayBeACallback)
{
    std::promise<void> gone;
    auto ticks = std::make_shared<TickManager>();
    std::promise<std::shared_ptr<TickManager>> handOver;
    auto subscription = ticks->every(1ms, [&, received = handOver.get_future().share(), done = false]() mutable {
        if (std::exchange(done, true))
            return;
        auto owner = received.get();
        handOver = {};
        received = {};
        owner.reset();
        gone.set_value();
    });
    handOver.set_value(std::move(ticks));
    gone.get_future().get();
}

TEST(TickManager, InstanceEndsWhileManyThreadsSubscribe)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 200; ++round) {
                auto subscription = TickManager::instance()->every(1ms, [] {});
                if (i == 0)
                    TickManager::destructInstance();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    TickManager::destructInstance();
}

} // namespace
