#include <chrono>
#include <functional>
#include <future>

#include "Fixture.h"
#include "platform/us/Exceptions.h"

namespace us_test {

using namespace std::chrono_literals;
using us::LDAPFilter;
using Tracker = us::ServiceTracker<Greeter>;

void expectClosed(const Tracker& tracker)
{
    EXPECT_TRUE(tracker.IsEmpty());
    EXPECT_EQ(tracker.Size(), 0u);
    EXPECT_EQ(tracker.GetTrackingCount(), -1);
    EXPECT_EQ(tracker.GetService(), nullptr);
    EXPECT_TRUE(tracker.GetServiceReferences().empty());
    EXPECT_EQ(tracker.WaitForService(), nullptr);
    EXPECT_EQ(textOf<us::ServiceException>([&] { tracker.GetServiceReference(); }), "No service is being tracked");
}

TEST_F(UsTest, TrackerIsEmptyUnlessOpen)
{
    const auto registration = offer("a");
    Tracker tracker(&context());
    tracker.Close();
    expectClosed(tracker);
    for (int round = 0; round < 2; ++round) {
        tracker.Open();
        tracker.Open();
        EXPECT_EQ(tracker.GetTrackingCount(), 1);
        const auto held = tracker.GetService();
        tracker.Close();
        tracker.Close();
        expectClosed(tracker);
        EXPECT_EQ(held->greet(), "a");
    }
    EXPECT_TRUE(registration.GetReference().GetUsingBundles().empty());
}

TEST_F(UsTest, TrackerRefusesWhatItCannotTrack)
{
    const char* const kNoContext = "The bundle context cannot be null.";
    EXPECT_EQ(textOf<std::invalid_argument>([] { Tracker tracker(nullptr); }), kNoContext);
    EXPECT_EQ(textOf<std::invalid_argument>([] { Tracker tracker(nullptr, "id"); }), kNoContext);
    EXPECT_EQ(textOf<std::invalid_argument>([] { Tracker tracker(nullptr, LDAPFilter("(a=*)")); }), kNoContext);
    EXPECT_EQ(textOf<std::invalid_argument>([] { Tracker t(nullptr, us::ServiceReference<Greeter>()); }), kNoContext);
    EXPECT_THROW(Tracker(&context(), us::ServiceReference<Greeter>()), std::invalid_argument);
    EXPECT_THROW(Tracker(&context(), ""), std::invalid_argument);
}

TEST_F(UsTest, TrackerFollowsTheBestMatch)
{
    auto a = offer("a");
    Tracker tracker(&context(), "us.test.Greeter/1.0");
    tracker.Open();
    const auto state = [&] {
        const auto best = tracker.GetService();
        return (best ? best->greet() : "-") + " of " + std::to_string(tracker.Size()) + ", " +
               std::to_string(tracker.GetTrackingCount());
    };
    EXPECT_EQ(state(), "a of 1, 1");
    auto b = offer("b", {{"service.ranking", 1}});
    EXPECT_EQ(state(), "b of 2, 2");
    auto c = offer("c", {{"service.ranking", 1}});
    EXPECT_EQ(state(), "b of 3, 3");
    a.SetProperties({{"service.ranking", 7}});
    EXPECT_EQ(state(), "a of 3, 4");
    EXPECT_EQ(tracker.GetServiceReference(), a.GetReference());
    EXPECT_EQ(tracker.GetServiceReferences().back(), c.GetReference());
    EXPECT_EQ(tracker.GetService(c.GetReference())->greet(), "c");
    a.Unregister();
    EXPECT_EQ(state(), "b of 2, 5");
    b.Unregister();
    c.Unregister();
    EXPECT_EQ(state(), "- of 0, 7");
    EXPECT_TRUE(tracker.IsEmpty());
}

TEST_F(UsTest, TrackerCountsAsUserUntilItsObjectsAreDropped)
{
    const auto a = offer("a");
    const auto reference = a.GetReference();
    Tracker tracker(&context(), reference);
    tracker.Open();
    const auto b = offer("b", {{"service.ranking", 3}});
    EXPECT_EQ(tracker.Size(), 1u) << "one service only";
    EXPECT_TRUE(b.GetReference().GetUsingBundles().empty());
    auto held = tracker.GetService();
    tracker.Close();
    EXPECT_EQ(reference.GetUsingBundles().size(), 1u);
    held.reset();
    EXPECT_TRUE(reference.GetUsingBundles().empty());
}

TEST_F(UsTest, FilterTrackerFollowsProperties)
{
    Tracker tracker(&context(), LDAPFilter("(colour=red)"));
    tracker.Open();
    auto a = offer("a", {{"colour", "red"}});
    const auto other = context().RegisterService<Counter>(std::make_shared<Both>(), {{"colour", "red"}});
    EXPECT_EQ(tracker.Size(), 1u);
    a.SetProperties({{"colour", "blue"}});
    EXPECT_TRUE(tracker.IsEmpty());
    a.SetProperties({{"colour", "red"}});
    EXPECT_EQ(tracker.Size(), 1u);
    EXPECT_EQ(tracker.GetTrackingCount(), 3);
}

TEST_F(UsTest, TimedWaitEndsInTime)
{
    Tracker tracker(&context());
    tracker.Open();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tracker.WaitForService(30ms), nullptr);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 30ms);
    EXPECT_LT(waited, 5s);
    EXPECT_THROW(tracker.WaitForService(-1us), std::invalid_argument);
    const auto registration = offer("a");
    EXPECT_EQ(tracker.WaitForService(std::chrono::hours(1))->greet(), "a");
}

TEST_F(UsTest, WaitersWakeOnRegistrationCloseAndStop)
{
    const std::vector<std::pair<std::function<void(Tracker&)>, std::string>> table{
        {[](Tracker& tracker) { tracker.Close(); }, "null"},
        {[&](Tracker&) { framework_->Stop(); }, "null"},
        {[&](Tracker&) { offer("late"); }, "late"},
    };
    for (const auto& [wake, expected] : table) {
        framework_->Start();
        Tracker tracker(&context());
        tracker.Open();
        std::promise<void> begun;
        auto result = std::async(std::launch::async, [&] {
            begun.set_value();
            const auto service = tracker.WaitForService();
            return service ? service->greet() : "null";
        });
        begun.get_future().wait();
        wake(tracker);
        EXPECT_EQ(result.get(), expected);
    }
}

TEST_F(UsTest, ContextDeathClosesTheTracker)
{
    const auto registration = offer("a");
    Tracker tracker(&context());
    tracker.Open();
    framework_->Stop();
    expectClosed(tracker);
    tracker.Close();
    EXPECT_THROW(tracker.Open(), us::InvalidContextException);
    framework_->Start();
    EXPECT_THROW(tracker.Open(), us::InvalidContextException) << "the new context is not the tracker's";
    expectClosed(tracker);
}

} // namespace us_test
