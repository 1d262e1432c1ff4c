#include <dlfcn.h>
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
    void TearDown() override { ShutdownRegistry::clear(); }

    Trace trace;
    Trace reports;
};

TEST_F(ShutdownRegistryTest, NotifiesInReverseOrderThenTerminatesAsOftenAsItIsAsked)
{
    add("a");
    ShutdownRegistry::RegisterObject(nullptr);
    add("b");
    EXPECT_EQ(ShutdownRegistry::names(), (Trace{"a", "(null)", "b"}));
    EXPECT_TRUE(ShutdownRegistry::isOkToExit());

    const Trace once = {"shutdown b", "shutdown a", "terminate b", "terminate a"};
    for (int time = 0; time < 2; ++time) {
        trace.clear();
        notifyAll();
        EXPECT_EQ(trace, once) << "what was started since is to go down, too";
    }
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(ShutdownRegistry::names(), (Trace{"a", "(null)", "b"}));

    trace.clear();
    ShutdownRegistry::clear();
    EXPECT_EQ(trace, (Trace{"delete b", "delete a"}));
    EXPECT_TRUE(ShutdownRegistry::names().empty());
}

TEST_F(ShutdownRegistryTest, AFailureIsReportedAndKeepsNobodyFromTheirs)
{
    add("a");
    Recorder& failing = add("b");
    failing.onShutdown = [] { throw std::runtime_error("disk full"); };
    failing.onTerminate = [] { throw 3; };

    notifyAll();
    EXPECT_EQ(trace, (Trace{"shutdown b", "shutdown a", "terminate b", "terminate a"}));
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

// Would hang if the lock were held while objects are called, and never end if a notification began within another.
TEST_F(ShutdownRegistryTest, ObjectsMayUseTheRegistryWhileTheyAreNotified)
{
    Recorder& first = add("first");
    first.onShutdown = [this] {
        add("late");
        notifyAll();
    };
    notifyAll();
    EXPECT_EQ(trace, (Trace{"shutdown first", "terminate first"}));
    EXPECT_EQ(ShutdownRegistry::names(), (Trace{"first", "late"}));

    first.onShutdown = nullptr;
    first.onTerminate = [this] {
        ShutdownRegistry::clear();
        trace.push_back("goes on");
    };
    trace.clear();
    notifyAll();
    EXPECT_EQ(trace, (Trace{"shutdown late", "shutdown first", "terminate late", "terminate first", "goes on",
                            "delete late", "delete first"}))
        << "nothing is deleted that still runs";
}

// A host that lets go of a library keeps what its list leads to.
TEST_F(ShutdownRegistryTest, KeepsTheLibraryOfAnObjectLoaded)
{
    const auto isLoaded = [] {
        void* const library = dlopen(HOOK_LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
        return library && dlclose(library) == 0;
    };
    void* const library = dlopen(HOOK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    static int notified = 0;
    reinterpret_cast<void (*)(void (*)())>(dlsym(library, "registerHook"))([] { ++notified; });
    EXPECT_EQ(dlclose(library), 0);
    ASSERT_TRUE(isLoaded());
    notifyAll();
    EXPECT_EQ(notified, 1);
    ShutdownRegistry::clear();
    EXPECT_FALSE(isLoaded()) << "and no longer than that";
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

TEST_F(ShutdownRegistryTest, AnExceptionOfTheReportEndsTheCallAndNoMore)
{
    Recorder& failing = add("a");
    failing.onShutdown = [] { throw std::runtime_error("disk full"); };
    EXPECT_THROW(ShutdownRegistry::notifyAll([](std::string_view) { throw std::logic_error("no report"); }),
                 std::logic_error);
    EXPECT_EQ(trace, (Trace{"shutdown a"}));
    failing.onShutdown = nullptr;
    notifyAll();
    EXPECT_EQ(trace, (Trace{"shutdown a", "shutdown a", "terminate a"}));
}

} // namespace
