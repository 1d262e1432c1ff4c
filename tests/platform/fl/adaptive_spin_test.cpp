#include "platform/fl/adaptive_spin.h"

#include <gtest/gtest.h>

#include <atomic>

#include <sched.h>

namespace {

using namespace std::chrono_literals;

TEST(AdaptiveSpin, looksForAsLongAsAsked)
{
    fl::AdaptiveSpin spin;
    EXPECT_FALSE(spin.isActive());
    spin.start(1h);
    EXPECT_TRUE(spin.isActive());
    spin.start(0ns);
    EXPECT_FALSE(spin.isActive());
}

TEST(AdaptiveSpin, restsWhereOthersNeedTheProcessor)
{
    cpu_set_t all;
    ASSERT_EQ(::sched_getaffinity(0, sizeof all, &all), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(::sched_getcpu(), &one);
    ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0); // the thread below inherits it
    std::atomic<bool> over = false;
    std::thread busy([&] {
        while (!over) {
        }
    });

    fl::AdaptiveSpin spin;
    unsigned looks = 0;
    const auto end = std::chrono::steady_clock::now() + 400ms;
    while (std::chrono::steady_clock::now() < end) {
        spin.start(100us);
        if (spin.isActive()) {
            ++looks;
            spin.giveWay();
        } else {
            std::this_thread::sleep_for(1ms);
        }
    }
    over = true;
    busy.join();
    ::sched_setaffinity(0, sizeof all, &all);
    EXPECT_GE(looks, 1u);
    EXPECT_LE(looks, 40u) << "of some 100 in which the busy thread runs in between";
}

} // namespace
