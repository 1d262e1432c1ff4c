#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <boost/smart_ptr/make_shared.hpp>
#include <unistd.h>

#include "connector/http/HttpManagerServiceProviderImpl.h"
#include "lifecycle/Framework.h"
#include "platform/rqe/LocalRQE.h"
#include "platform/us/BundleContext.h"
#include "platform/us/ServiceTracker.h"
#include "wiring/core/Module.h"
#include "wiring/core/Slot.h"
#include "wiring/runtime_folder.h"

namespace lifecycle {
namespace {

using connector::ConnectorImpl2;
using connector::http::HttpManagerServiceProviderImpl;
using wiring::slot;

class NoLanguage final : public rqe::LanguageHost
{
public:
    void withInterpreter(const std::function<void(rqe::Interpreter&)>&) override {}
    void breakRunning() override {}
    void discardBreak() override {}
};

/// Makes a start fail after the port is open: the families that look at the interpreter come late.
class Engine final : public rqe::LocalRQE
{
public:
    using LocalRQE::LocalRQE;

    void addListener(const std::shared_ptr<rqe::EngineListener>& listener) override
    {
        if (onFailure)
            onFailure();
        if (fails)
            throw std::runtime_error("no listener today");
        LocalRQE::addListener(listener);
    }

    bool fails = false;
    std::function<void()> onFailure;
};

/// Fails to stop the first time.
class Stubborn final : public connector::ServiceProvider
{
public:
    void start() override {}
    void stop() override
    {
        if (std::exchange(fails_, false))
            throw std::runtime_error("not yet");
    }
    bool isRunning() const override { return true; }
    connector::MessageFuture deliver(std::unique_ptr<connector::Message>&& message, connector::Address&&,
                                     std::shared_ptr<connector::Context>&&) override
    {
        return connector::makeReadyFuture(std::move(message));
    }

private:
    bool fails_ = true;
};

std::size_t threadCount()
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

std::uint16_t openPort() { return slot<HttpManagerServiceProviderImpl>->listPorts({}).get().ports.at(0).port; }

class LifecycleFailureTest : public testing::Test
{
protected:
    void SetUp() override { rqe::ProcessSession::setSession(rqe::makeSession(engine)); }

    void TearDown() override
    {
        stop();
        rqe::ProcessSession::setSession(nullptr);
        ::unsetenv("VENDRA_HTTP_PORT");
    }

    NoLanguage language;
    boost::shared_ptr<Engine> engine = boost::make_shared<Engine>(language);
    wiring::test::RuntimeFolder runtime;
};

TEST_F(LifecycleFailureTest, RetryIsFoundInPlaceOfWhatFailed)
{
    us::ServiceTracker<connector::Connector> tracker(wiring::frameworkContext(), "connector.Connector/1.0");
    tracker.Open();
    engine->fails = true;
    EXPECT_THROW(ensureStarted(), std::runtime_error);
    const auto dead = tracker.GetService();
    ASSERT_EQ(dead, slot<ConnectorImpl2>) << "nothing is rolled back";
    const auto port = openPort();
    EXPECT_TRUE(runtime.isAnnounced());

    // The port that the failed start took is needed again, and somebody may still hold its registry.
    ::setenv("VENDRA_HTTP_PORT", std::to_string(port).c_str(), 1);
    EXPECT_THROW(ensureStarted(), std::runtime_error);
    EXPECT_EQ(openPort(), port);
    EXPECT_TRUE(runtime.isAnnounced());
    engine->fails = false;
    ensureStarted();
    EXPECT_EQ(tracker.Size(), 1u);
    EXPECT_EQ(tracker.GetService(), slot<ConnectorImpl2>);
    EXPECT_TRUE(dead->listServiceProviders().empty());
    EXPECT_EQ(openPort(), port);
    EXPECT_TRUE(runtime.isAnnounced());
    stop();
    EXPECT_TRUE(tracker.IsEmpty());
    EXPECT_FALSE(runtime.isAnnounced());
}

// Its threads must not outlive what they use: the exit destroys what was first used last.
TEST_F(LifecycleFailureTest, ExitAfterAFailedStartEndsItsThreadsFirst)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            engine->fails = true;
            engine->onFailure = [] {
                std::atexit([] {
                    if (threadCount() != 1)
                        ::_exit(3);
                });
            };
            try {
                ensureStarted();
            } catch (const std::runtime_error&) {
                std::exit(threadCount() > 1 ? 0 : 4);
            }
            ::_exit(5);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LifecycleFailureTest, StopThatFailedIsRepeated)
{
    ensureStarted();
    slot<ConnectorImpl2>->addServiceProvider("connector/http/stubborn", std::make_shared<Stubborn>());
    EXPECT_THROW(stop(), std::runtime_error);
    EXPECT_TRUE(slot<ConnectorImpl2>) << "it ended where the exception came";
    stop();
    EXPECT_FALSE(slot<ConnectorImpl2>);
    ensureStarted();
    EXPECT_NE(openPort(), 0);
}

} // namespace
} // namespace lifecycle
