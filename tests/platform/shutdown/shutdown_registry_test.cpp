#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "platform/shutdown/ShutdownRegistry.h"

namespace {

using Trace = std::vector<std::string>;

class Recorder : public ShutdownObject
{
public:
    Recorder(const char* name, Trace& trace) : ShutdownObject(name), trace_(trace) {}
    ~Recorder() override { note("delete"); }

    bool isOkToExit() const override { return okToExit; }

    void shutdown() override
    {
        note("shutdown");
        if (onShutdown)
            onShutdown();
    }

    void terminate() const override
    {
        note("terminate");
        if (onTerminate)
            onTerminate();
    }

    bool okToExit = true;
    std::function<void()> onShutdown;
    std::function<void()> onTerminate;

private:
    void note(const char* what) const { trace_.push_back(std::string(what) + " " + name()); }

    Trace& trace_;
};

class ShutdownRegistryTest : public testing::Test
{
protected:
    Recorder& add(const char* name)
    {
        auto* const object = new Recorder(name, trace);
        ShutdownRegistry::RegisterObject(object);
        return *object;
    }

    void notifyAll()
    {
        ShutdownRegistry::notifyAll([this](std::string_view text) { reports.emplace_back(text); });
    }

    /// The registry is the process's own: nothing may stay in it for the next test.
    void TearDown() override { ShutdownRegistry::notifyAll({}); }

    Trace trace;
    Trace reports;
};

TEST_F(ShutdownRegistryTest, NotifiesInReverseOrderThenTerminatesThenDeletes)
{
    add("a");
    ShutdownRegistry::RegisterObject(nullptr);
    add("b");
    EXPECT_EQ(ShutdownRegistry::names(), (Trace{"a", "(null)", "b"}));
    EXPECT_TRUE(ShutdownRegistry::isOkToExit());

    notifyAll();
    const Trace once = {"shutdown b", "shutdown a", "terminate b", "terminate a", "delete b", "delete a"};
    EXPECT_EQ(trace, once);
    EXPECT_TRUE(reports.empty());
    EXPECT_TRUE(ShutdownRegistry::names().empty());

    notifyAll();
    EXPECT_EQ(trace, once);
}

TEST_F(ShutdownRegistryTest, AFailureIsReportedAndKeepsNobodyFromTheirs)
{
    add("a");
    Recorder& failing = add("b");
    failing.onShutdown = [] { throw std::runtime_error("disk full"); };
    failing.onTerminate = [] { throw 3; };

    notifyAll();
    EXPECT_EQ(trace, (Trace{"shutdown b", "shutdown a", "terminate b", "terminate a", "delete b", "delete a"}));
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0], "The shutdown of \"b\" failed: disk full");
    EXPECT_EQ(reports[1], "The terminate of \"b\" failed: an exception of unknown type");
}

TEST_F(ShutdownRegistryTest, AnyObjectMayRefuseTheExit)
{
    add("a").okToExit = false;
    ShutdownRegistry::RegisterObject(nullptr);
    add("b");
    EXPECT_FALSE(ShutdownRegistry::isOkToExit());
    EXPECT_TRUE(trace.empty());
}

// Would hang if the lock were held while objects are called.
TEST_F(ShutdownRegistryTest, ObjectsMayUseTheRegistryWhileTheyAreNotified)
{
    Recorder& first = add("first");
    first.onShutdown = [this] {
        add("late");
        notifyAll();
        add("later");
    };
    notifyAll();
    EXPECT_EQ(trace, (Trace{"shutdown first", "shutdown late", "terminate late", "delete late", "terminate first",
                            "delete first"}));
    EXPECT_EQ(ShutdownRegistry::names(), (Trace{"later"}));
}

TEST_F(ShutdownRegistryTest, AnyThreadMayRegister)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 200;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i)
            threads.emplace_back([] {
                for (int j = 0; j < kEach; ++j)
                    ShutdownRegistry::RegisterObject(new ShutdownObject("x"));
            });
    }
    EXPECT_EQ(ShutdownRegistry::names().size(), std::size_t{kThreads * kEach});
}

TEST_F(ShutdownRegistryTest, AnExceptionOfTheReportLosesNoObject)
{
    add("a");
    add("b").onShutdown = [] { throw std::runtime_error("disk full"); };
    EXPECT_THROW(ShutdownRegistry::notifyAll([](std::string_view) { throw std::logic_error("no report"); }),
                 std::logic_error);
    EXPECT_EQ(std::count(trace.begin(), trace.end(), "delete a"), 1);
    EXPECT_EQ(std::count(trace.begin(), trace.end(), "delete b"), 1);
}

} // namespace
