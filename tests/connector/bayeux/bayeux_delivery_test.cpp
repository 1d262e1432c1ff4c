#include "connector/bayeux/bayeux_fixture.h"

namespace connector::bayeux {
namespace {

using namespace std::chrono_literals;

std::string number(int value) { return std::to_string(value); }

TEST(BayeuxDelivery, releasesAHeldConnectOncePerBurst)
{
    Bus bus;
    bus.join(bus.http());
    bus.subscribe("/a/*", bus.http());
    bus.subscribe("/a/**", bus.http());
    const auto receiver = bus.client;
    auto held = bus.post(Bus::kConnect, bus.http());
    bus.join(bus.http());
    bus.ask(
        R"([{"channel":"/a/x","clientId":"$C","data":{"n":1},"id":"5","ext":{}},{"channel":"/b","clientId":"$C","data":2},
        {"channel":"/a/y/z","clientId":"$C","data":3}])");
    bus.client = receiver;
    ASSERT_TRUE(held.isReady());
    EXPECT_EQ(normal(held.get()),
              bus.is("[" + event("/a/x", R"({"n":1})") + "," + event("/a/y/z", "3") +
                     R"(,{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"c"}])"));
    EXPECT_EQ(bus.server->counters().delivered, 2u);
}

TEST(BayeuxDelivery, whatWaitsGoesAlongWithAReplyThatIsSentAtOnce)
{
    Bus bus;
    bus.join(bus.http());
    bus.subscribe("/a", bus.http());
    bus.server->publish("/a", 1);
    const auto publish = R"([{"channel":"/a","clientId":"$C","data":2,"id":"p"}])";
    const auto accepted = R"({"channel":"/a","id":"p","successful":true})";
    EXPECT_EQ(bus.ask(publish), bus.is("[" + (accepted + ("," + event("/a", "1"))) + "," + event("/a", "2") + "]"));
    EXPECT_EQ(bus.server->counters().delivered, 2u);
    auto held = bus.post(Bus::kConnect, bus.http());
    EXPECT_EQ(bus.ask(publish), bus.is("[" + (accepted + ("," + event("/a", "2"))) + "]"));
    EXPECT_FALSE(held.isReady());
    // Not where the order counts: nothing overtakes what a series brings.
    const auto series = bus.server->findSession(bus.client)->openSeries("/numbered", false);
    EXPECT_EQ(bus.ask(publish), bus.is("[" + std::string(accepted) + "]"));
    EXPECT_TRUE(held.isReady());
    bus.join(bus.http(), true, R"({"ack":true})");
    bus.subscribe("/a", bus.http());
    EXPECT_EQ(bus.ask(publish), bus.is("[" + std::string(accepted) + "]"));
    // Nor does a reply to somebody else take it.
    bus.join(bus.http());
    bus.subscribe("/a", bus.http());
    const auto one = bus.client;
    bus.join(bus.http());
    EXPECT_EQ(bus.ask(publish), bus.is("[" + std::string(accepted) + "]"));
    bus.client = one;
    EXPECT_NE(
        bus.ask(R"([{"channel":"/meta/unsubscribe","clientId":"$C","subscription":"/x"}])").find(event("/a", "2")),
        std::string::npos);
}

TEST(BayeuxDelivery, aConnectThatBrokeLosesNothing)
{
    Bus bus;
    bus.join(bus.http());
    bus.subscribe("/a", bus.http());
    auto held = bus.post(Bus::kConnect, bus.http());
    held.cancel();
    bus.server->publish("/a", 1);
    bus.server->publish("/a", 2);
    EXPECT_EQ(bus.ask(Bus::kConnect),
              bus.is("[" + event("/a", "1") + "," + event("/a", "2") +
                     R"(,{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"c","advice":$RETRY}])"));
}

TEST(BayeuxDelivery, webSocketsArePushedToAtOnceWithTheSameFrame)
{
    Bus bus;
    bus.join(bus.socket(), false);
    bus.subscribe("/a", bus.socket());
    bus.server->publish("/a", 1); // before the first connect
    EXPECT_EQ(bus.sink->take(), std::vector<std::string>{"[" + event("/a", "1") + "]"});
    bus.ask(Bus::kConnect, bus.socket());
    EXPECT_EQ(bus.ask(Bus::kConnect, bus.socket()), ""); // held
    const auto sinkOfFirst = std::exchange(bus.sink, std::make_shared<RecordingSink>());
    bus.join(bus.socket());
    bus.subscribe("/a", bus.socket());
    const auto shared = std::make_shared<const BayeuxEvent>("/a", 2);
    bus.server->publish(shared);
    ASSERT_EQ(sinkOfFirst->frames().size(), 1u);
    ASSERT_EQ(bus.sink->frames().size(), 1u);
    EXPECT_EQ(sinkOfFirst->frames()[0], shared->frame());
    EXPECT_EQ(bus.sink->frames()[0], shared->frame());
    EXPECT_EQ(*shared->frame(), "[" + std::string(shared->text()) + "]");
}

TEST(BayeuxDelivery, aClosedWebSocketLeavesTheQueueAndItsSessionGoesOnOverHttp)
{
    for (const bool told : {true, false}) {
        Bus bus;
        bus.join(bus.socket());
        bus.subscribe("/a", bus.socket());
        bus.ask(Bus::kConnect, bus.socket());
        if (told)
            bus.server->webSocketClosed(bus.sink);
        bus.sink->broken = true;
        bus.server->publish("/a", 1);
        bus.server->publish("/a", 2);
        const auto reply = bus.ask(Bus::kConnect);
        EXPECT_EQ(reply.find(bus.is("[" + event("/a", "1") + "," + event("/a", "2") + "]").substr(0, 20)), 0u) << reply;
        bus.sink->broken = false;
        bus.server->publish("/a", 3);
        EXPECT_TRUE(bus.sink->frames().empty());
    }
}

TEST(BayeuxDelivery, aClientOfHttpContinuesOnAWebSocket)
{
    Bus bus;
    bus.join(bus.http("browser"), false);
    bus.subscribe("/a", bus.http("browser"));
    bus.server->publish("/a", 1);
    bus.ask(Bus::kConnect, bus.socket("browser"));
    bus.server->publish("/a", 2);
    EXPECT_EQ(bus.sink->take(), (std::vector<std::string>{"[" + event("/a", "1") + "]", "[" + event("/a", "2") + "]"}));
}

TEST(BayeuxDelivery, acknowledgedEventsAreSentAgainUntilConfirmed)
{
    Bus bus;
    bus.join(bus.http(), true, R"({"ack":true})");
    bus.subscribe("/a", bus.http());
    const auto connect = [&](const std::string& ack) {
        return R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling","ext":{"ack":)" + ack +
               "}}]";
    };
    const auto reply = [&](const std::string& events, int batch) {
        return bus.is("[" + events + R"({"channel":"/meta/connect","successful":true,"clientId":"$C","ext":{"ack":)" +
                      number(batch) + "}}]");
    };
    auto held = bus.post(connect("0"), bus.http());
    EXPECT_FALSE(held.isReady());
    bus.server->publish("/a", 1);
    ASSERT_TRUE(held.isReady());
    EXPECT_EQ(normal(held.get()), reply(event("/a", "1") + ",", 1));
    // That reply got lost: what it carried comes again, before what is new, and at once.
    bus.server->publish("/a", 2);
    EXPECT_EQ(bus.ask(connect("0")), reply(event("/a", "1") + "," + event("/a", "2") + ",", 2));
    EXPECT_EQ(bus.ask(connect("1")), reply(event("/a", "1") + "," + event("/a", "2") + ",", 3));
    auto last = bus.post(connect("3"), bus.http());
    EXPECT_FALSE(last.isReady());
}

TEST(BayeuxDelivery, withAcknowledgementAWebSocketGetsEventsOnlyWithConnects)
{
    Bus bus;
    bus.join(bus.socket(), true, R"({"ack":{"enabled":true}})");
    bus.subscribe("/a", bus.socket());
    bus.server->publish("/a", 1);
    EXPECT_TRUE(bus.sink->frames().empty());
    EXPECT_EQ(bus.ask(Bus::kConnect, bus.socket()), "");
    const auto reply = [&](int n) {
        return bus.is("[" + event("/a", number(n)) +
                      R"(,{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"c","ext":{"ack":)" +
                      number(n) + "}}]");
    };
    ASSERT_EQ(bus.sink->frames().size(), 1u);
    EXPECT_EQ(normal(bus.sink->take().front()), reply(1));
    EXPECT_EQ(bus.ask(Bus::kConnect, bus.socket()), ""); // held: without a word on what arrived nothing is repeated
    bus.server->publish("/a", 2);
    ASSERT_EQ(bus.sink->frames().size(), 1u);
    EXPECT_EQ(normal(bus.sink->take().front()), reply(2));
}

TEST(BayeuxDelivery, slowReadersEndAfterTheirLazyEventsWent)
{
    Bus bus;
    auto limits = bus.server->limits();
    limits.queueMessages = 3;
    bus.server->setLimits(limits);
    ChannelOptions lazy;
    lazy.lazy = true;
    bus.server->setChannelOptions("/lazy", lazy);
    bus.join(bus.http());
    bus.subscribe("/a", bus.http());
    bus.subscribe("/lazy", bus.http());
    bus.server->publish("/lazy", 1);
    bus.server->publish("/a", 2);
    bus.server->publish("/a", 3);
    bus.server->publish("/a", 4);
    EXPECT_EQ(bus.server->counters().droppedLazy, 1u);
    EXPECT_EQ(bus.server->counters().overflows, 0u);
    bus.server->publish("/lazy", 5);
    EXPECT_EQ(bus.server->counters().droppedLazy, 2u);
    bus.server->publish("/a", 6);
    EXPECT_EQ(bus.server->counters().overflows, 1u);
    EXPECT_EQ(
        bus.ask(Bus::kConnect),
        bus.is(
            R"([{"channel":"/meta/connect","successful":false,"clientId":"$C","error":"402","id":"c","advice":$AGAIN}])"));

    limits.queueBytes = 1'000;
    bus.server->setLimits(limits);
    bus.join(bus.http());
    bus.subscribe("/a", bus.http());
    bus.server->publish("/a", std::string(1'000, 'x'));
    EXPECT_EQ(bus.server->counters().overflows, 2u);

    bus.join(bus.socket());
    bus.subscribe("/a", bus.socket());
    bus.ask(Bus::kConnect, bus.socket());
    bus.sink->queued = 990;
    bus.server->publish("/a", 1);
    EXPECT_EQ(bus.server->counters().overflows, 3u);
    ASSERT_EQ(bus.sink->frames().size(), 1u);
    EXPECT_EQ(normal(bus.sink->take().front()),
              bus.is(R"([{"channel":"/meta/connect","successful":false,"clientId":"$C",
        "error":"402","id":"c","advice":$AGAIN}])"));
}

TEST(BayeuxDelivery, lazyEventsWaitForCompanyOrTheirTime)
{
    Bus bus;
    ChannelOptions lazy;
    lazy.lazy = true;
    bus.server->setChannelOptions("/lazy", lazy);
    for (const bool webSocket : {false, true}) {
        auto limits = bus.server->limits();
        limits.lazyDelay = 1h;
        bus.server->setLimits(limits);
        const auto origin = webSocket ? bus.socket() : bus.http();
        bus.join(origin);
        bus.subscribe("/lazy", origin);
        bus.subscribe("/a", origin);
        auto held = bus.post(Bus::kConnect, origin);
        bus.server->publish("/lazy", 1);
        EXPECT_EQ(held.isReady(), webSocket);
        EXPECT_TRUE(bus.sink->frames().empty());
        bus.server->publish("/a", 2);
        const auto both = event("/lazy", "1") + "," + event("/a", "2");
        ASSERT_TRUE(held.isReady());
        const auto got = webSocket ? bus.sink->take().at(0) : held.get();
        EXPECT_EQ(got.substr(1, both.size()), both);

        limits.lazyDelay = 10ms;
        bus.server->setLimits(limits);
        auto next = bus.post(Bus::kConnect, origin);
        bus.server->publish("/lazy", 3);
        EXPECT_TRUE(eventually([&] { return webSocket ? !bus.sink->frames().empty() : next.isReady(); }));
        bus.sink->take();
        bus.ask(R"([{"channel":"/meta/disconnect","clientId":"$C"}])", origin);
    }
}

TEST(BayeuxDelivery, newSubscribersGetWhatChannelsRetain)
{
    Bus bus;
    ChannelOptions retain;
    retain.retain = true;
    bus.server->setChannelOptions("/r/x", retain);
    bus.server->setChannelOptions("/r/y", retain);
    bus.server->publish("/r/x", 1);
    bus.server->publish("/r/x", 2);
    bus.server->publish("/r/z", 3);
    for (const char* channel : {"/r/x", "/r/*"}) {
        bus.join(bus.socket());
        bus.subscribe(channel, bus.socket());
        EXPECT_EQ(bus.sink->take(), std::vector<std::string>{"[" + event("/r/x", "2") + "]"});
        bus.subscribe(channel, bus.socket()); // it is not new
        EXPECT_TRUE(bus.sink->take().empty());
    }
    std::vector<std::string> seen;
    const auto mine = bus.server->subscribe(
        "/r/x", [&seen](const BayeuxMessage& message) { seen.push_back(json::write(message.data)); });
    EXPECT_EQ(seen, std::vector<std::string>{"2"});
}

TEST(BayeuxDelivery, presenceTellsWhoCameAndLeftWithoutTheirSecrets)
{
    Bus bus;
    ChannelOptions presence;
    presence.presence = true;
    bus.server->setChannelOptions("/room", presence);
    std::vector<json::Object::Ptr> seen;
    const auto mine = bus.server->subscribe(
        "/presence/**", [&seen](const BayeuxMessage& message) { seen.push_back(json::asObject(message.data)); });
    bus.join(bus.http());
    bus.subscribe("/room", bus.http());
    EXPECT_NE(bus.ask(R"([{"channel":"/presence/room","clientId":"$C","data":{}}])").find("\"403\""),
              std::string::npos);
    bus.server->findSession(bus.client)->disconnect();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(json::requireString(*seen[0], "event"), "join");
    EXPECT_EQ(json::requireInteger(*seen[0], "subscribers"), 1);
    EXPECT_EQ(json::requireString(*seen[1], "event"), "leave");
    EXPECT_EQ(json::requireInteger(*seen[1], "subscribers"), 0);
    EXPECT_EQ(json::requireString(*seen[0], "session"), json::requireString(*seen[1], "session"));
    EXPECT_NE(json::requireString(*seen[0], "session"), bus.client);
}

TEST(BayeuxDelivery, manyTabsOfOneBrowserAreToldSo)
{
    Bus bus;
    const auto origin = bus.http("browser");
    std::vector<Future<std::string>> held;
    std::vector<std::string> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(bus.join(origin));
        held.push_back(bus.post(Bus::kConnect, origin));
    }
    EXPECT_FALSE(held[0].isReady());
    EXPECT_FALSE(held[1].isReady());
    ASSERT_TRUE(held[2].isReady());
    EXPECT_EQ(normal(held[2].get()), bus.is(R"([{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"c",
        "advice":{"reconnect":"retry","interval":2000,"timeout":30000,"multiple-clients":true}}])"));
    // There is room when a tab closes; its neighbour is told when it is answered.
    held[0].cancel();
    auto again = bus.post(Bus::kConnect, origin);
    EXPECT_FALSE(again.isReady());
    bus.server->findSession(bus.client)->deliver(std::make_shared<const BayeuxEvent>("/x", 1));
    EXPECT_EQ(normal(again.get()), bus.is("[" + event("/x", "1") + R"(,{"channel":"/meta/connect","successful":true,
        "clientId":"$C","id":"c","advice":$RETRY}])"));
}

} // namespace
} // namespace connector::bayeux
