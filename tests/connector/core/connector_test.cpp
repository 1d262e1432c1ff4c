#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "connector/core/ConnectorImpl2.h"

namespace connector {
namespace {

struct Greeting : Message
{
    explicit Greeting(std::string content) : text(std::move(content)) {}
    std::string text;
};

/// Answers with its own name behind what it was sent; as a filter, sends that on.
class Greeter : public ServiceProvider
{
public:
    explicit Greeter(std::string name) : name_(std::move(name)) {}

    void start() override
    {
        if (onStart)
            onStart();
        if (failsToStart)
            throw std::runtime_error(name_ + " does not start");
        running = true;
        ++starts;
        if (onStarted)
            onStarted();
    }
    void stop() override
    {
        if (onStop)
            onStop();
        running = false;
    }
    bool isRunning() const override { return running; }

    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                          std::shared_ptr<Context>&& context) override
    {
        if (throws)
            throw std::domain_error(name_ + " failed");
        static_cast<Greeting&>(*message).text += "." + name_;
        if (address.empty())
            return makeReadyFuture(std::move(message));
        return context->connector()->handle(std::move(message), std::move(address), std::move(context));
    }

    std::atomic<bool> running = false;
    bool failsToStart = false;
    bool throws = false;
    int starts = 0;
    std::function<void()> onStart;
    std::function<void()> onStarted;
    std::function<void()> onStop;

private:
    std::string name_;
};

class ConnectorTest : public testing::Test
{
protected:
    std::string send(Address address)
    {
        try {
            auto answer =
                connector->handle(std::make_unique<Greeting>("hello"), std::move(address), connector->newContext());
            return dynamic_cast<Greeting&>(*answer.get()).text;
        } catch (const std::exception& error) {
            return error.what();
        }
    }

    std::shared_ptr<Greeter> add(const std::string& name)
    {
        auto provider = std::make_shared<Greeter>(name);
        connector->addServiceProvider(name, provider);
        return provider;
    }

    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("default");
};

TEST_F(ConnectorTest, MessagesPassTheAddressInOrder)
{
    add("a");
    add("b");
    EXPECT_EQ(send(Address{"b", "a"}), "hello.b.a");
    EXPECT_EQ(send(Address{"?gone", "a", "?alsoGone", "?b"}), "hello.a.b");
    EXPECT_EQ(send(Address{"a", "?gone"}), "The message was sent to an empty address.");
}

TEST_F(ConnectorTest, FailuresAreFutures)
{
    add("a")->throws = true;
    EXPECT_EQ(send(Address{"a"}), "a failed");
    EXPECT_EQ(send(Address{}), "The message was sent to an empty address.");
    EXPECT_EQ(send(Address{"connector/v1/nobody"}), "No service provider is registered as \"connector/v1/nobody\".");
}

TEST_F(ConnectorTest, RegistrationStartsAndRemovalStops)
{
    auto first = add("x");
    EXPECT_TRUE(first->running);
    auto second = add("x");
    EXPECT_FALSE(first->running);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(connector->listServiceProviders(), std::set<std::string>{"x"});

    connector->addServiceProvider("y", second);
    connector->removeServiceProvider("x");
    EXPECT_TRUE(second->running) << "y still leads to it";
    connector->removeServiceProvider("y");
    EXPECT_FALSE(second->running);
    connector->removeServiceProvider("y");

    auto failing = std::make_shared<Greeter>("z");
    failing->failsToStart = true;
    EXPECT_THROW(connector->addServiceProvider("z", failing), std::runtime_error);
    EXPECT_TRUE(connector->listServiceProviders().empty());
    EXPECT_THROW(connector->addServiceProvider("", second), std::invalid_argument);
    EXPECT_THROW(connector->addServiceProvider("z", nullptr), std::invalid_argument);
}

// Both may own one thing outside: a port, a file.
TEST_F(ConnectorTest, FormerProviderIsStoppedBeforeTheNextStarts)
{
    auto first = add("x");
    auto second = std::make_shared<Greeter>("second");
    second->onStart = [&] {
        EXPECT_FALSE(first->running);
        EXPECT_FALSE(connector->isServiceProviderRunning("x")) << "nobody is promised what does not run";
    };
    connector->addServiceProvider("x", second);
    EXPECT_EQ(send(Address{"x"}), "hello.second");

    auto third = std::make_shared<Greeter>("third");
    third->failsToStart = true;
    EXPECT_THROW(connector->addServiceProvider("x", third), std::runtime_error);
    EXPECT_TRUE(second->running) << "it goes on where there is no other";
    EXPECT_EQ(send(Address{"x"}), "hello.second");
    EXPECT_EQ(third.use_count(), 1);
    second->onStart = nullptr;

    connector->addServiceProvider("y", second);
    auto fourth = std::make_shared<Greeter>("fourth");
    fourth->onStart = [&] { EXPECT_TRUE(second->running) << "y still leads to it"; };
    connector->addServiceProvider("x", fourth);
    EXPECT_TRUE(second->running);
    connector->addServiceProvider("x", fourth);
    EXPECT_TRUE(fourth->running) << "its own former";
}

// A provider with a second name in the making is not stopped for the end of its first.
TEST_F(ConnectorTest, RemovalOfOneNameLeavesTheOtherServed)
{
    auto provider = add("x");
    provider->onStarted = [&] { connector->removeServiceProvider("x"); };
    connector->addServiceProvider("y", provider);
    EXPECT_TRUE(connector->isServiceProviderRunning("y"));
    EXPECT_EQ(connector->listServiceProviders(), std::set<std::string>{"y"});
    provider->onStarted = nullptr;

    // A start waits for a stop that is under way.
    std::thread adding;
    provider->onStop = [&] { adding = std::thread([&] { connector->addServiceProvider("z", provider); }); };
    connector->removeServiceProvider("y");
    adding.join();
    EXPECT_TRUE(connector->isServiceProviderRunning("z"));
    provider->onStop = nullptr;

    std::atomic<bool> done{false};
    std::atomic<int> rounds{0};
    std::thread other([&] {
        for (; !done; ++rounds) {
            connector->addServiceProvider("a", provider);
            connector->removeServiceProvider("a");
        }
    });
    for (int i = 0; i < 2'000 || rounds < 2'000; ++i) {
        connector->removeServiceProvider("z");
        connector->addServiceProvider("z", provider);
        ASSERT_TRUE(connector->isServiceProviderRunning("z")) << i;
    }
    done = true;
    other.join();
    connector->removeServiceProvider("z");
    EXPECT_FALSE(provider->running);
    EXPECT_EQ(provider.use_count(), 1);
}

// As the manager of ports does, whose threads run whatever was asked for over HTTP.
TEST_F(ConnectorTest, ProviderMayWaitInItsStopForWhoStopsItToo)
{
    auto provider = add("x");
    bool asked = false;
    provider->onStop = [&] {
        if (std::exchange(asked, true))
            return;
        std::thread([&] {
            connector->start();
            connector->stop();
            connector->removeServiceProvider("x");
        }).join();
    };
    connector->stop();
    EXPECT_FALSE(provider->running);
    EXPECT_TRUE(connector->listServiceProviders().empty());
    EXPECT_EQ(provider.use_count(), 1);
    add("x");
    EXPECT_EQ(send(Address{"x"}), "hello.x");
}

TEST_F(ConnectorTest, EndOfTheRegistrySurvivesProvidersThatFailToStop)
{
    add("a")->onStop = [] { throw std::runtime_error("a bad end"); };
    add("b")->onStop = [] { throw 3; };
    auto last = add("c");
    testing::internal::CaptureStderr();
    connector.reset();
    const auto errors = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(last->running);
    EXPECT_NE(errors.find("\"a\" failed to stop at the end of the registry: a bad end"), std::string::npos) << errors;
    EXPECT_NE(errors.find("\"b\" failed to stop"), std::string::npos) << errors;
}

TEST_F(ConnectorTest, EndOfTheRegistryStopsItsProvidersAndItsContexts)
{
    auto provider = add("a");
    auto context = connector->newContext();
    connector.reset();
    EXPECT_FALSE(provider->running);
    EXPECT_THROW(context->connector(), std::runtime_error);
}

TEST_F(ConnectorTest, SendingWhileProvidersComeAndGo)
{
    std::atomic<bool> done{false};
    std::atomic<int> changes{0};
    std::thread changing([&] {
        for (; !done; ++changes) {
            connector->addServiceProvider("a", std::make_shared<Greeter>("a"));
            connector->removeServiceProvider("a");
        }
    });
    for (int sent = 0; sent < 5'000 || changes < 1'000; ++sent) {
        const auto answer = send(Address{"a"});
        EXPECT_TRUE(answer == "hello.a" || answer == "No service provider is registered as \"a\".") << answer;
    }
    done = true;
    changing.join();
    EXPECT_TRUE(connector->listServiceProviders().empty());
}

TEST(AddressTest, IsEmptyAfterItWasMovedFrom)
{
    Address address{"a", "b", "c"};
    address.popFront();
    address.popFront();
    const Address taken = std::move(address);
    EXPECT_EQ(taken, Address{"c"});
    EXPECT_TRUE(address.empty());
    EXPECT_EQ(address.size(), 0u);
    EXPECT_EQ(toString(address), "");

    Address target{"x", "y"};
    target.popFront();
    Address source{"d", "e"};
    source.popFront();
    target = std::move(source);
    EXPECT_EQ(target, Address{"e"});
    EXPECT_TRUE(source.empty());
    source = Address{"f"};
    EXPECT_EQ(source.front(), "f");
}

// Typed delivery.

class Alpha : public ServiceProviderAPI<Alpha>
{
public:
    int served = 0;
};
class Beta : public ServiceProviderAPI<Beta>
{};

struct AlphaMessage : ServiceMessage<Alpha>
{
    MessageFuture deliverTo(std::shared_ptr<Alpha> provider, std::unique_ptr<Message>&& message, Address&&,
                            std::shared_ptr<Context>&&) override
    {
        ++provider->served;
        return makeReadyFuture(std::move(message));
    }
};
struct DerivedAlphaMessage : AlphaMessage
{};
struct BetaMessage : ServiceMessage<Beta>
{
    MessageFuture deliverTo(std::shared_ptr<Beta>, std::unique_ptr<Message>&& message, Address&&,
                            std::shared_ptr<Context>&&) override
    {
        return makeReadyFuture(std::move(message));
    }
};

TEST(TypedDelivery, ChecksRunningFirstAndThenTheType)
{
    auto provider = std::make_shared<Alpha>();
    const auto deliver = [&](std::unique_ptr<Message> message) {
        return provider->deliver(std::move(message), Address(), nullptr);
    };
    try {
        deliver(std::make_unique<BetaMessage>()).get();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Service exists but is not running.");
    }

    provider->start();
    EXPECT_NE(dynamic_cast<DerivedAlphaMessage*>(deliver(std::make_unique<DerivedAlphaMessage>()).get().get()),
              nullptr);
    EXPECT_EQ(provider->served, 1);
    try {
        deliver(std::make_unique<BetaMessage>()).get();
        FAIL();
    } catch (const std::invalid_argument& error) {
        EXPECT_EQ(error.what(), std::string("Incorrect message type. Expected: ") +
                                    typeid(ServiceMessage<Alpha>).name() + " but found " + typeid(BetaMessage).name());
    }

    provider->stop();
    EXPECT_THROW(deliver(std::make_unique<AlphaMessage>()).get(), std::runtime_error);
    EXPECT_EQ(provider->served, 1);
}

} // namespace
} // namespace connector
