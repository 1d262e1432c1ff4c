#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/core/ConnectorImpl2.h"

namespace connector::container::v1 {
namespace {

struct Text : Message
{
    explicit Text(std::string content) : text(std::move(content)) {}
    std::string text;
};

using Handler = std::function<MessageFuture(std::unique_ptr<Message>)>;

/// A provider that answers as the test says.
class Scripted : public ServiceProvider
{
public:
    explicit Scripted(Handler handler) : handler_(std::move(handler)) {}
    void start() override {}
    void stop() override {}
    bool isRunning() const override { return true; }
    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&) override
    {
        return handler_(std::move(message));
    }

private:
    Handler handler_;
};

MessageFuture upper(std::unique_ptr<Message> message)
{
    auto& text = dynamic_cast<Text&>(*message).text;
    if (text == "fail")
        throw ServiceFault("broken", "asked to fail", {{"why", "test"}});
    text += "!";
    return makeReadyFuture(std::move(message));
}

class DispatcherTest : public testing::Test
{
protected:
    void SetUp() override { serve("upper", upper); }

    void serve(const std::string& name, Handler handler)
    {
        connector->addServiceProvider(name, std::make_shared<Scripted>(std::move(handler)));
    }

    static std::unique_ptr<ContainerRequest> request(std::vector<std::pair<std::string, std::string>> typesAndTexts)
    {
        auto made = std::make_unique<ContainerRequest>();
        made->id = "r";
        for (auto& [type, text] : typesAndTexts)
            made->entries.push_back(
                {"m" + std::to_string(made->entries.size()), type, std::make_unique<Text>(text), {}});
        return made;
    }

    MessageFuture send(std::vector<std::pair<std::string, std::string>> typesAndTexts)
    {
        return dispatcher->handle(request(std::move(typesAndTexts)), Address(), connector->newContext());
    }

    /// The answers as one text: "m0=hello! m1=Fault(code)".
    static std::string answers(MessageFuture future)
    {
        const auto message = future.get();
        const auto& response = dynamic_cast<const ContainerResponse&>(*message);
        std::string all;
        for (const auto& entry : response.entries) {
            all += (all.empty() ? "" : " ") + entry.id + "=";
            if (const auto* fault = dynamic_cast<const Fault*>(entry.message.get()))
                all += "Fault(" + fault->code + ")";
            else
                all += dynamic_cast<const Text&>(*entry.message).text;
        }
        return all;
    }

    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    std::shared_ptr<ContainerDispatcherImpl> dispatcher = std::make_shared<ContainerDispatcherImpl>();
};

TEST_F(DispatcherTest, EachMessageIsAnsweredInItsPlace)
{
    dispatcher->registerMessageMapping("Upper", Address{"upper"}, 0);
    dispatcher->registerMessageMapping("Nowhere", Address{"nobody"}, 0);
    EXPECT_EQ(answers(send({{"Upper", "a"}, {"Other", "b"}, {"Upper", "fail"}, {"Nowhere", "c"}, {"Upper", "d"}})),
              "m0=a! m1=Fault(unknownType) m2=Fault(broken) m3=Fault(unavailable) m4=d!");
    EXPECT_EQ(answers(send({{"", "without a type"}})), "m0=Fault(unknownType)");
    EXPECT_EQ(answers(send({})), "");
    EXPECT_THROW(dispatcher->handle(request({}), Address{"more"}, connector->newContext()), std::invalid_argument);
}

TEST_F(DispatcherTest, LateAnswersFromAnotherThreadKeepTheOrder)
{
    std::vector<Promise<std::unique_ptr<Message>>> waiting(3);
    std::size_t next = 0;
    serve("late", [&](std::unique_ptr<Message>) { return waiting[next++].future(); });
    dispatcher->registerMessageMapping("Late", Address{"late"}, 0);
    auto future = send({{"Late", ""}, {"Late", ""}, {"Late", ""}});
    EXPECT_FALSE(future.isReady());
    std::thread thread([&] {
        waiting[2].setValue(std::make_unique<Text>("third"));
        waiting[0].setValue(std::make_unique<Text>("first"));
        waiting[1] = {};
    });
    EXPECT_EQ(answers(std::move(future)), "m0=first m1=Fault(internal) m2=third");
    thread.join();
}

TEST_F(DispatcherTest, LimitCountsWhatIsUnanswered)
{
    std::vector<Promise<std::unique_ptr<Message>>> waiting(4);
    std::size_t next = 0;
    serve("late", [&](std::unique_ptr<Message>) { return waiting[next++].future(); });
    dispatcher->registerMessageMapping("Late", Address{"late"}, 2);
    auto first = send({{"Late", ""}, {"Late", ""}, {"Late", ""}});
    waiting[0].setValue(std::make_unique<Text>("a"));
    auto second = send({{"Late", ""}});
    for (auto i : {1, 2})
        waiting[static_cast<std::size_t>(i)].setValue(std::make_unique<Text>("b"));
    EXPECT_EQ(answers(std::move(first)), "m0=a m1=b m2=Fault(busy)");
    EXPECT_EQ(answers(std::move(second)), "m0=b");
}

TEST_F(DispatcherTest, ContainerMappingSendsATypeTogether)
{
    serve("together", [](std::unique_ptr<Message> message) -> MessageFuture {
        auto& together = dynamic_cast<ContainerRequest&>(*message);
        auto response = std::make_unique<ContainerResponse>();
        for (auto& entry : together.entries)
            response->entries.push_back({entry.id, std::make_unique<Text>(dynamic_cast<Text&>(*entry.message).text +
                                                                          std::to_string(together.entries.size()))});
        if (together.entries.size() == 3)
            response->entries.pop_back();
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(response));
    });
    dispatcher->registerMessageMapping("Upper", Address{"upper"}, 0);
    dispatcher->registerMessageContainerMapping("Joint", Address{"together"}, 0);
    EXPECT_EQ(answers(send({{"Joint", "a"}, {"Upper", "b"}, {"Joint", "c"}})), "m0=a2 m1=b! m2=c2");
    EXPECT_EQ(answers(send({{"Joint", "a"}, {"Joint", "b"}, {"Joint", "c"}})),
              "m0=Fault(internal) m1=Fault(internal) m2=Fault(internal)");
}

TEST_F(DispatcherTest, MapProviderMayBeReplacedByItsSuccessor)
{
    struct Provider : MessageMapProvider
    {
        Provider(std::shared_ptr<ContainerDispatcher> target, const char* address)
            : MessageMapProvider(std::move(target))
        {
            map("Upper", Address{address});
        }
    };
    auto provider = std::make_unique<Provider>(dispatcher, "nobody");
    provider = std::make_unique<Provider>(dispatcher, "upper");
    EXPECT_EQ(answers(send({{"Upper", "a"}})), "m0=a!");
    provider.reset();
    EXPECT_EQ(answers(send({{"Upper", "a"}})), "m0=Fault(unknownType)");
}

TEST_F(DispatcherTest, BeforeAndAfterAddressesSeeWholeContainers)
{
    serve("before", [](std::unique_ptr<Message> message) {
        dynamic_cast<ContainerRequest&>(*message).entries.push_back(
            {"added", "Upper", std::make_unique<Text>("x"), {}});
        return makeReadyFuture(std::move(message));
    });
    serve("after", [](std::unique_ptr<Message> message) {
        dynamic_cast<ContainerResponse&>(*message).entries.push_back({"late", std::make_unique<Text>("y")});
        return makeReadyFuture(std::move(message));
    });
    dispatcher->registerMessageMapping("Upper", Address{"upper"}, 0);
    dispatcher->registerBeforeAddress(Address{"before"});
    dispatcher->registerAfterAddress(Address{"after"});
    EXPECT_EQ(answers(send({{"Upper", "a"}})), "m0=a! added=x! late=y");
    dispatcher->deregisterBeforeAddress(Address{"before"});
    dispatcher->deregisterAfterAddress(Address{"other"});
    EXPECT_EQ(answers(send({{"Upper", "a"}})), "m0=a! late=y");
    connector->removeServiceProvider("after");
    EXPECT_THROW(send({{"Upper", "a"}}).get(), UnknownServiceProvider);
}

TEST_F(DispatcherTest, AddressesMayAnswerLateAndInPlaceOfTheDispatch)
{
    Promise<std::unique_ptr<Message>> before;
    Promise<std::unique_ptr<Message>> after;
    std::unique_ptr<Message> atBefore;
    std::unique_ptr<Message> atAfter;
    serve("before", [&](std::unique_ptr<Message> message) {
        atBefore = std::move(message);
        return before.future();
    });
    serve("after", [&](std::unique_ptr<Message> message) {
        atAfter = std::move(message);
        return after.future();
    });
    dispatcher->registerMessageMapping("Upper", Address{"upper"}, 0);
    dispatcher->registerBeforeAddress(Address{"before"});
    dispatcher->registerAfterAddress(Address{"after"});
    auto answered = send({{"Upper", "a"}});
    EXPECT_EQ(atAfter, nullptr);
    before.setValue(std::move(atBefore));
    ASSERT_NE(atAfter, nullptr);
    EXPECT_FALSE(answered.isReady());
    after.setValue(std::move(atAfter));
    EXPECT_EQ(answers(std::move(answered)), "m0=a!");

    serve("before", [](std::unique_ptr<Message> message) {
        std::unique_ptr<ContainerRequest> refused(static_cast<ContainerRequest*>(message.release()));
        return makeReadyFuture<std::unique_ptr<Message>>(
            refuseEach(std::move(refused), std::make_exception_ptr(ServiceFault("busy", "refused"))));
    });
    serve("after", [](std::unique_ptr<Message> message) { return makeReadyFuture(std::move(message)); });
    EXPECT_EQ(answers(send({{"Upper", "a"}, {"Other", "b"}})), "m0=Fault(busy) m1=Fault(busy)");
}

TEST_F(DispatcherTest, ScopesEndWithTheContainerWhateverBecomesOfIt)
{
    struct Scope : ContainerScope
    {
        explicit Scope(int& count) : alive(count) { ++alive; }
        ~Scope() override { --alive; }
        int& alive;
    };
    int alive = 0;
    int aliveAtDispatch = 0;
    serve("put", [&](std::unique_ptr<Message> message) {
        dynamic_cast<ContainerRequest&>(*message).scopes.push_back(std::make_shared<Scope>(alive));
        return makeReadyFuture(std::move(message));
    });
    serve("look", [&](std::unique_ptr<Message> message) {
        aliveAtDispatch = alive;
        return makeReadyFuture(std::move(message));
    });
    const auto fail = [](std::unique_ptr<Message>) -> MessageFuture { throw std::runtime_error("asked to fail"); };
    dispatcher->registerMessageMapping("Look", Address{"look"}, 0);
    dispatcher->registerBeforeAddress(Address{"put"});
    dispatcher->registerBeforeAddress(Address{"second"});
    dispatcher->registerAfterAddress(Address{"after"});

    const auto passOn = [](std::unique_ptr<Message> message) { return makeReadyFuture(std::move(message)); };
    serve("second", passOn);
    serve("after", fail);
    EXPECT_THROW(send({{"Look", "a"}}).get(), std::runtime_error);
    EXPECT_EQ(aliveAtDispatch, 1);
    EXPECT_EQ(alive, 0) << "the answers could not leave";

    serve("second", fail);
    EXPECT_THROW(send({{"Look", "a"}}).get(), std::runtime_error);
    EXPECT_EQ(alive, 0) << "the request was not dispatched";

    serve("second", passOn);
    serve("after", passOn);
    auto response = send({{"Look", "a"}}).get();
    EXPECT_EQ(alive, 1);
    response.reset();
    EXPECT_EQ(alive, 0);
}

TEST_F(DispatcherTest, AnswerEachKeepsTheOrderOfLateAnswers)
{
    std::vector<Promise<std::unique_ptr<Message>>> waiting(2);
    std::size_t next = 0;
    auto made = request({{"A", "0"}, {"A", "fail"}, {"A", "2"}, {"A", ""}});
    made->entries[3].failure = std::make_exception_ptr(ServiceFault("unread", "never read"));
    auto future = answerEach(std::move(made), [&](std::unique_ptr<Message> message) {
        if (dynamic_cast<Text&>(*message).text == "fail")
            throw ServiceFault("broken", "asked to fail");
        return waiting.at(next++).future();
    });
    waiting[1].setValue(std::make_unique<Text>("second"));
    EXPECT_FALSE(future.isReady());
    waiting[0].setValue(std::make_unique<Text>("first"));
    EXPECT_EQ(answers(std::move(future)), "m0=first m1=Fault(broken) m2=second m3=Fault(unread)");
}

} // namespace
} // namespace connector::container::v1
