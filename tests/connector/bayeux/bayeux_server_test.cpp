#include "connector/bayeux/bayeux_fixture.h"

namespace connector::bayeux {
namespace {

using namespace std::chrono_literals;

class Rules final : public BayeuxSecurityPolicy
{
public:
    std::string mayHandshake(const BayeuxSession&, const Poco::JSON::Object& message) override
    {
        return message.has("password") ? "" : "Who is there?";
    }
    std::string mayCreate(const BayeuxSession&, const std::string& channel) override
    {
        return channel == "/new" ? "No new ones" : "";
    }
    std::string maySubscribe(const BayeuxSession&, const std::string& channel) override
    {
        return channel == "/secret" ? "Not for you" : "";
    }
    std::string mayPublish(const BayeuxSession&, const std::string& channel) override
    {
        if (channel == "/broken")
            throw std::runtime_error("a fault of the policy");
        return channel == "/service/secret" ? "Not for you" : "";
    }
};

TEST(BayeuxServer, policyDecidesAndRechecks)
{
    Bus bus;
    bus.join(bus.socket());
    bus.subscribe("/secret", bus.socket());
    bus.subscribe("/open", bus.socket());
    const auto handler = bus.server->handleService("/service/*", [](const BayeuxMessage&) { return "x"; });
    bus.server->setPolicy(std::make_shared<Rules>(), true);
    EXPECT_TRUE(bus.server->subscribers("/secret").empty());
    EXPECT_EQ(bus.server->subscribers("/open").size(), 1u);
    for (const char* refused :
         {R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":["websocket"]}])",
          R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":"/secret"}])",
          R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":["/open","/new"]}])",
          R"([{"channel":"/new","clientId":"$C","data":1}])", R"([{"channel":"/broken","clientId":"$C","data":1}])",
          R"([{"channel":"/service/secret","clientId":"$C","data":1}])"})
        EXPECT_NE(bus.ask(refused, bus.socket()).find(R"("error":"403")"), std::string::npos) << refused;
    bus.server->setPolicy(nullptr, true);
    bus.subscribe("/secret", bus.socket());

    ChannelOptions news;
    news.serverPublishesOnly = true;
    bus.server->setChannelOptions("/open", news);
    EXPECT_NE(bus.ask(R"([{"channel":"/open","clientId":"$C","data":1}])", bus.socket()).find("\"403\""),
              std::string::npos);
    bus.server->publish("/open", 1);
    EXPECT_EQ(bus.sink->take().size(), 1u);
}

TEST(BayeuxServer, knowsWhetherAnybodyWouldReceive)
{
    Bus bus;
    bus.join(bus.socket());
    ChannelOptions kept;
    kept.retain = true;
    bus.server->setChannelOptions("/a/b", kept);
    EXPECT_FALSE(bus.server->hasReceivers("/a/b")) << "a channel without subscribers";
    for (const char* subscription : {"/a/b", "/a/*", "/a/**", "/**"}) {
        const auto function = bus.server->subscribe(subscription, [](const BayeuxMessage&) {});
        EXPECT_TRUE(bus.server->hasReceivers("/a/b")) << subscription;
        EXPECT_EQ(bus.server->hasReceivers("/a"), std::string(subscription) == "/**") << subscription;
    }
    EXPECT_FALSE(bus.server->hasReceivers("/a/b"));
    bus.subscribe("/a/*", bus.socket());
    EXPECT_TRUE(bus.server->hasReceivers("/a/b"));
    EXPECT_FALSE(bus.server->hasReceivers("/a/b/c"));
}

TEST(BayeuxServer, servicesAnswerTheSenderOnly)
{
    Bus bus;
    auto handler = bus.server->handleService("/service/add", [](const BayeuxMessage& message) -> Poco::Dynamic::Var {
        if (message.data.isEmpty())
            return {};
        if (message.data.isString())
            throw std::runtime_error("no number");
        return message.data.convert<int>() + (message.ext ? 100 : 1);
    });
    EXPECT_THROW((void)bus.server->handleService("/other", [](const BayeuxMessage&) { return 1; }),
                 std::invalid_argument);
    const auto other = std::make_shared<RecordingSink>();
    std::swap(bus.sink, const_cast<std::shared_ptr<RecordingSink>&>(other));
    bus.join(bus.socket());
    bus.subscribe("/**", bus.socket());
    bus.subscribe("/service/**", bus.socket());
    const auto bystander = bus.sink;
    bus.sink = std::make_shared<RecordingSink>();
    bus.join(bus.socket());
    const auto ok = bus.is(R"([{"channel":"/service/add","successful":true,"id":"1"}])");
    EXPECT_EQ(bus.ask(R"([{"channel":"/service/add","clientId":"$C","data":1,"id":"1"}])", bus.socket()), ok);
    EXPECT_EQ(bus.ask(R"([{"channel":"/service/add","clientId":"$C","data":1,"ext":{},"id":"1"}])", bus.socket()), ok);
    EXPECT_EQ(bus.ask(R"([{"channel":"/service/add","clientId":"$C","id":"1"}])", bus.socket()), ok);
    EXPECT_EQ(bus.ask(R"([{"channel":"/service/add","clientId":"$C","data":"x"}])", bus.socket()),
              bus.is(R"([{"channel":"/service/add","successful":false,"error":"500"}])"));
    EXPECT_EQ(bus.sink->take(), (std::vector<std::string>{"[" + event("/service/add", "2") + "]",
                                                          "[" + event("/service/add", "101") + "]"}));
    EXPECT_TRUE(bystander->frames().empty());
    auto successor = bus.server->handleService("/service/add", [](const BayeuxMessage&) { return 7; });
    handler.reset();
    bus.ask(R"([{"channel":"/service/add","clientId":"$C"}])", bus.socket());
    EXPECT_EQ(bus.sink->take(), std::vector<std::string>{"[" + event("/service/add", "7") + "]"});
    successor.reset();
    EXPECT_NE(bus.ask(R"([{"channel":"/service/add","clientId":"$C","data":1}])", bus.socket()).find("\"404\""),
              std::string::npos);
}

TEST(BayeuxServer, acknowledgementsMayGoAlongWithAServicesAnswer)
{
    Bus bus;
    ServiceOptions options;
    options.answersSoon = true;
    const auto handler = bus.server->handleService(
        "/service/late",
        [](const BayeuxMessage& message) -> Poco::Dynamic::Var {
            if (message.data.isString())
                throw std::runtime_error("no number");
            return {};
        },
        options);
    bus.join(bus.socket());
    bus.sink->take();
    const std::string request = R"({"channel":"/service/late","clientId":"$C","id":"1"})";
    const std::string accepted = R"({"channel":"/service/late","id":"1","successful":true})";
    EXPECT_EQ(bus.ask("[" + request + "]", bus.socket()), "");
    EXPECT_EQ(bus.sink->patient(), 1u);
    ASSERT_EQ(bus.sink->frames().size(), 1u);
    EXPECT_EQ(normal(bus.sink->take().at(0)), "[" + accepted + "]");
    // With anything that somebody may wait for it does not wait, nor where there is nothing to go along with.
    const std::string other = R"({"channel":"/a","clientId":"$C","data":1,"id":"2"})";
    EXPECT_EQ(bus.ask("[" + request + "," + other + "]", bus.socket()),
              "[" + accepted + R"(,{"channel":"/a","id":"2","successful":true}])");
    EXPECT_NE(bus.ask(R"([{"channel":"/service/late","clientId":"$C","data":"x"}])", bus.socket()), "");
    bus.join(bus.http());
    EXPECT_EQ(bus.ask("[" + request + "]", bus.http()), "[" + accepted + "]");
}

TEST(BayeuxServer, functionsOfTheProcessSubscribeAndPublish)
{
    Bus bus;
    std::vector<std::string> seen;
    const auto note = [&seen](const BayeuxMessage& message) {
        seen.push_back(message.channel + json::write(message.data) + (message.sender ? message.sender->id() : "-"));
    };
    auto mine = bus.server->subscribe("/a/*", note);
    auto faulty = bus.server->subscribe("/a/*", [](const BayeuxMessage&) { throw std::runtime_error("x"); });
    auto local = bus.server->openLocalSession("clock", note);
    EXPECT_THROW(bus.server->openLocalSession("clock", note), std::invalid_argument);
    EXPECT_EQ(bus.server->findSession("clock"), local);
    bus.server->publish("/a/b", 1);
    bus.server->publish(std::make_shared<const BayeuxEvent>("/a/c", 2));
    bus.server->publishAs(*local, "/a/d", 3);
    bus.join(bus.http());
    bus.ask(R"([{"channel":"/a/e","clientId":"$C","data":4}])");
    EXPECT_TRUE(local->deliver(std::make_shared<const BayeuxEvent>("/to/clock", 5)));
    EXPECT_EQ(seen, (std::vector<std::string>{"/a/b1-", "/a/c2-", "/a/d3clock", "/a/e4" + bus.client, "/to/clock5-"}));
    // A client cannot speak for a local session.
    EXPECT_NE(bus.ask(R"([{"channel":"/a/e","clientId":"clock","data":4}])").find("\"402\""), std::string::npos);
    mine.reset();
    bus.server->publish("/a/b", 6);
    EXPECT_EQ(seen.size(), 5u);
    local->disconnect();
    EXPECT_FALSE(local->deliver(std::make_shared<const BayeuxEvent>("/x", 1)));
    EXPECT_EQ(bus.server->findSession("clock"), nullptr);
    local = bus.server->openLocalSession("clock", note);
    local.reset();
    EXPECT_EQ(bus.server->sessions().size(), 1u);
    for (const char* channel : {"/a/*", "/meta/x", "/service/x", "a", "/"})
        EXPECT_THROW(bus.server->publish(channel, 1), std::invalid_argument) << channel;
}

class Diary final : public BayeuxListener
{
public:
    void sessionAdded(const SessionPtr&) override { note("+session"); }
    void sessionRemoved(const SessionPtr&, bool timedOut) override { note(timedOut ? "-expired" : "-session"); }
    void subscribed(const SessionPtr&, const std::string& channel) override { note("+sub" + channel); }
    void unsubscribed(const SessionPtr&, const std::string& channel) override { note("-sub" + channel); }
    void channelAdded(const std::string& channel) override { note("+chan" + channel); }
    void channelRemoved(const std::string& channel) override { note("-chan" + channel); }
    std::string take()
    {
        std::lock_guard lock(mutex_);
        return std::exchange(text_, {});
    }
    bool contains(const std::string& text)
    {
        std::lock_guard lock(mutex_);
        return text_.find(text) != std::string::npos;
    }

private:
    void note(const std::string& text)
    {
        std::lock_guard lock(mutex_);
        text_ += text + ' ';
    }
    std::mutex mutex_;
    std::string text_;
};

TEST(BayeuxServer, listenersHearOfAllThatHappens)
{
    Bus bus;
    const auto diary = std::make_shared<Diary>();
    auto listening = bus.server->addListener(diary);
    bus.join(bus.http());
    bus.subscribe("/a", bus.http());
    bus.subscribe("/b", bus.http());
    bus.ask(R"([{"channel":"/meta/unsubscribe","clientId":"$C","subscription":"/a"}])");
    bus.ask(R"([{"channel":"/meta/disconnect","clientId":"$C"}])");
    EXPECT_EQ(diary->take(), "+session +chan/a +sub/a +chan/b +sub/b -sub/a -chan/a -sub/b -chan/b -session ");
    listening.reset();
    bus.join(bus.http());
    EXPECT_EQ(diary->take(), "");
}

TEST(BayeuxServer, sessionsExpireWhenNobodyComesBackAndOnlyThen)
{
    Bus bus;
    auto limits = bus.server->limits();
    limits.timeout = 1h;
    limits.maxInterval = 20ms;
    bus.server->setLimits(limits);
    const auto diary = std::make_shared<Diary>();
    const auto listening = bus.server->addListener(diary);
    const auto held = bus.join(bus.http());
    auto connect = bus.post(Bus::kConnect, bus.http());
    const auto onSocket = bus.join(bus.socket());
    const auto cancelled = bus.join(bus.http());
    bus.post(Bus::kConnect, bus.http()).cancel();
    const auto neverConnected = bus.join(bus.http(), false);
    EXPECT_TRUE(eventually([&] { return bus.server->counters().expired == 2; }));
    EXPECT_TRUE(diary->contains("-expired"));
    EXPECT_EQ(bus.server->findSession(cancelled), nullptr);
    EXPECT_EQ(bus.server->findSession(neverConnected), nullptr);
    EXPECT_NE(bus.server->findSession(held), nullptr);
    EXPECT_NE(bus.server->findSession(onSocket), nullptr);
    bus.server->webSocketClosed(bus.sink);
    EXPECT_TRUE(eventually([&] { return !bus.server->findSession(onSocket); }));
    EXPECT_FALSE(connect.isReady());
}

TEST(BayeuxServer, kickedClientsStayAway)
{
    Bus bus;
    bus.join(bus.http());
    auto held = bus.post(Bus::kConnect, bus.http());
    const auto session = bus.server->findSession(bus.client);
    session->disconnect();
    EXPECT_TRUE(session->isOver());
    EXPECT_FALSE(session->deliver(std::make_shared<const BayeuxEvent>("/x", 1)));
    ASSERT_TRUE(held.isReady());
    EXPECT_EQ(normal(held.get()),
              bus.is(R"([{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"c","advice":$NONE}])"));
    EXPECT_EQ(
        bus.ask(Bus::kConnect),
        bus.is(
            R"([{"channel":"/meta/connect","successful":false,"clientId":"$C","error":"402","id":"c","advice":$NONE}])"));
}

TEST(BayeuxServer, limitsOfSessionsSubscriptionsAndChannels)
{
    Bus bus;
    auto limits = bus.server->limits();
    limits.sessions = 1;
    limits.subscriptions = 2;
    limits.channels = 3;
    bus.server->setLimits(limits);
    bus.join(bus.http());
    const auto second =
        bus.ask(R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":["websocket"]}])");
    EXPECT_NE(second.find(R"("error":"503")"), std::string::npos);
    EXPECT_NE(second.find(R"("interval":5000,"reconnect":"handshake")"), std::string::npos);
    EXPECT_NE(
        bus.ask(R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":["/a","/b","/c"]}])").find("\"403\""),
        std::string::npos);
    EXPECT_EQ(bus.server->counters().channels, 0u);
    EXPECT_EQ(bus.server->counters().subscriptions, 0u);
    bus.server->setChannelOptions("/x", {});
    bus.server->setChannelOptions("/y", {});
    bus.server->setChannelOptions("/z", {});
    EXPECT_NE(bus.ask(R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":"/a"}])").find("\"403\""),
              std::string::npos);
    bus.subscribe("/x", bus.http());
}

TEST(BayeuxServer, stopAnswersEverybodyQuickly)
{
    Bus bus;
    std::vector<Future<std::string>> held;
    std::vector<std::string> clients;
    for (int i = 0; i < 1'000; ++i) {
        clients.push_back(bus.join(bus.http()));
        bus.subscribe("/a/" + std::to_string(i % 10), bus.http());
        held.push_back(bus.post(Bus::kConnect, bus.http()));
    }
    bus.join(bus.socket());
    bus.ask(Bus::kConnect, bus.socket());
    const auto begin = std::chrono::steady_clock::now();
    bus.server->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_TRUE(bus.sink->closed);
    EXPECT_EQ(bus.sink->frames().size(), 1u);
    for (std::size_t i = 0; i < held.size(); ++i) {
        bus.client = clients[i];
        ASSERT_TRUE(held[i].isReady());
        ASSERT_EQ(normal(held[i].get()), bus.is(R"([{"channel":"/meta/connect","successful":false,"clientId":"$C",
            "error":"402","id":"c","advice":$AGAIN}])"));
    }
    const auto counters = bus.server->counters();
    EXPECT_EQ(counters.sessions + counters.subscriptions + counters.channels, 0u);
}

} // namespace
} // namespace connector::bayeux
