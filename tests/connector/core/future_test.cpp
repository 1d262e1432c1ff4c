#include "connector/core/Future.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace connector {
namespace {

std::string failureOf(auto&& action)
{
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no failure";
}

TEST(Future, EndsInItsFixedTexts)
{
    Promise<int> cancelled;
    auto future = cancelled.future();
    future.cancel();
    EXPECT_EQ(failureOf([&] { future.get(); }), "Future has been cancelled.");
    EXPECT_FALSE(cancelled.setValue(1));

    auto taken = makeReadyFuture(std::string("once"));
    EXPECT_EQ(taken.get(), "once");
    EXPECT_EQ(failureOf([&] { taken.get(); }), "Future already returned it's value or has an associated continuation.");
    EXPECT_EQ(failureOf([&] { taken.then([](Future<std::string> f) { return f.get(); }).get(); }),
              "Future already returned it's value or has an associated continuation.");

    auto continued = makeReadyFuture(1);
    auto next = continued.then([](Future<int> f) { return f.get() + 1; });
    EXPECT_EQ(failureOf([&] { continued.get(); }),
              "Future already returned it's value or has an associated continuation.");
    EXPECT_EQ(failureOf([&] { continued.then([](Future<int> f) { return f.get(); }); }),
              "Future already returned it's value or has an associated continuation.");
    EXPECT_EQ(next.get(), 2);
}

TEST(Future, DroppedPromiseFailsInsteadOfHanging)
{
    auto future = [] { return Promise<int>().future(); }();
    EXPECT_THROW(future.get(), BrokenPromise);
    Promise<int> reassigned;
    auto first = reassigned.future();
    reassigned = Promise<int>();
    EXPECT_THROW(first.get(), BrokenPromise);
}

TEST(Future, FailuresKeepTheirTypeThroughContinuations)
{
    struct Odd : std::out_of_range
    {
        using std::out_of_range::out_of_range;
    };
    bool ran = false;
    auto future =
        makeFailedFuture<int>(Odd("odd")).then([](Future<int> f) { return f.get(); }).then([&](Future<int> f) {
            ran = true;
            return makeReadyFuture(f.get());
        });
    EXPECT_TRUE(ran);
    EXPECT_THROW(future.get(), Odd);
}

TEST(Future, ReturnedFutureIsWaitedFor)
{
    Promise<int> outer;
    Promise<std::string> inner;
    auto result = outer.future().then([&](Future<int> f) {
        f.get();
        return inner.future();
    });
    outer.setValue(1);
    EXPECT_FALSE(result.isReady());
    std::thread thread([&] { inner.setValue("late"); });
    EXPECT_EQ(result.get(), "late");
    thread.join();
}

TEST(Future, CancellingTheEndTellsTheBeginning)
{
    Promise<int> first;
    bool told = false;
    first.onCancel([&] { told = true; });
    bool ran = false;
    auto end = first.future()
                   .then([&](Future<int> f) {
                       ran = true;
                       return f.get();
                   })
                   .then([](Future<int> f) { return f.get(); });
    end.cancel();
    EXPECT_TRUE(told);
    EXPECT_TRUE(first.isCancelled());
    EXPECT_TRUE(ran) << "a continuation sees the cancellation as a failure";

    Promise<int> afterwards;
    afterwards.future().cancel();
    bool late = false;
    afterwards.onCancel([&] { late = true; });
    EXPECT_TRUE(late);
}

// Whichever comes first, a cancellation is told. Before each round both threads wait for the other to be at it.
TEST(Future, CancellationReachesACallbackThatIsSetAtTheSameTime)
{
    constexpr int kRounds = 20'000;
    std::vector<Promise<int>> promises(kRounds);
    std::vector<Future<int>> futures;
    for (auto& promise : promises)
        futures.push_back(promise.future());
    std::atomic<int> atRound{0};
    const auto meet = [&atRound](int round) {
        ++atRound;
        for (int looks = 0; atRound < 2 * (round + 1); ++looks)
            if (looks > 1'000)
                std::this_thread::yield();
    };
    std::thread cancelling([&] {
        for (int round = 0; round < kRounds; ++round) {
            meet(round);
            futures[static_cast<std::size_t>(round)].cancel();
        }
    });
    int told = 0;
    for (int round = 0; round < kRounds; ++round) {
        meet(round);
        promises[static_cast<std::size_t>(round)].onCancel([&told] { ++told; });
    }
    cancelling.join();
    EXPECT_EQ(told, kRounds);
}

// A callback may own what uses the promise again.
TEST(Future, ReplacedCallbackDiesWithoutTheLock)
{
    Promise<int> promise;
    std::shared_ptr<void> asking(nullptr, [&promise](void*) { EXPECT_FALSE(promise.isCancelled()); });
    promise.onCancel([owned = std::move(asking)] {});
    promise.onCancel([] {});
}

TEST(Future, SettledAndCancelledAtOnceHasOneOutcome)
{
    for (int round = 0; round < 500; ++round) {
        Promise<int> promise;
        auto future = promise.future();
        int outcomes = 0;
        auto end = future.then([&](Future<int> f) {
            ++outcomes;
            return f.get();
        });
        bool accepted = false;
        std::thread setter([&] { accepted = promise.setValue(round); });
        end.cancel();
        setter.join();
        EXPECT_EQ(outcomes, 1);
        EXPECT_EQ(accepted, !promise.isCancelled());
    }
}

} // namespace
} // namespace connector
