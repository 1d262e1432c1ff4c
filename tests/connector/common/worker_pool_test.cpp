#include "connector/common/WorkerPool.h"

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace {

using connector::common::WorkerPool;

TEST(WorkerPool, HoldsNoMoreThanItsCapacity)
{
    std::promise<void> release;
    const auto gate = release.get_future().share();
    std::atomic<int> ran{0};
    {
        WorkerPool pool(2, 3);
        std::promise<void> last;
        // Two run, three wait.
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(pool.post([&, gate] {
                gate.wait();
                if (++ran == 5)
                    last.set_value();
            })) << i;
        EXPECT_FALSE(pool.post([&] { ++ran; }));
        release.set_value();
        last.get_future().get();
    }
    EXPECT_EQ(ran, 5);
}

TEST(WorkerPool, ThreadsAreStartedAsTheyAreNeeded)
{
    // Each job waits for all the others: fewer threads than jobs would hang.
    WorkerPool pool(4, 0);
    std::atomic<int> arrived{0};
    std::promise<void> all;
    const auto everybody = all.get_future().share();
    std::promise<void> finished;
    std::atomic<int> left{4};
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(pool.post([&, everybody] {
            if (++arrived == 4)
                all.set_value();
            everybody.wait();
            if (--left == 0)
                finished.set_value();
        }));
    finished.get_future().get();
}

TEST(WorkerPool, EndDropsWhatWaitsAndJoinsWhatRuns)
{
    auto witness = std::make_shared<int>(0);
    std::atomic<bool> ranToItsEnd{false};
    std::promise<void> entered;
    std::promise<void> dropped;
    /// Tells when the waiting job is destroyed, which lets the running one go on.
    struct Dropping
    {
        std::promise<void>& told;
        ~Dropping() { told.set_value(); }
    };
    {
        WorkerPool pool(1, 2);
        ASSERT_TRUE(pool.post([&] {
            entered.set_value();
            dropped.get_future().wait();
            ranToItsEnd = true;
        }));
        entered.get_future().get();
        ASSERT_TRUE(pool.post(
            [witness, dropping = std::make_shared<Dropping>(dropped)] { ADD_FAILURE() << "a dropped job ran"; }));
    }
    EXPECT_TRUE(ranToItsEnd);
    EXPECT_EQ(witness.use_count(), 1);
}

TEST(WorkerPool, FailingJobIsLoggedAndTheWorkerGoesOn)
{
    testing::internal::CaptureStderr();
    {
        WorkerPool pool(1, 2);
        std::promise<void> done;
        ASSERT_TRUE(pool.post([] { throw std::runtime_error("broken job"); }));
        ASSERT_TRUE(pool.post([&] { done.set_value(); }));
        done.get_future().get();
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("broken job"), std::string::npos);
}

TEST(WorkerPool, MayDieInItsOwnJob)
{
    auto pool = std::make_shared<WorkerPool>(2, 2);
    std::promise<std::shared_ptr<WorkerPool>> owner;
    std::promise<void> gone;
    ASSERT_TRUE(pool->post([&] {
        owner.get_future().get().reset();
        gone.set_value();
    }));
    owner.set_value(std::move(pool));
    gone.get_future().get();
}

} // namespace
