#include "connector/bayeux/bayeux_fixture.h"

namespace connector::bayeux {
namespace {

std::shared_ptr<const BayeuxEvent> numbered(int number)
{
    return BayeuxEvent::ofText("/series", std::to_string(number));
}

/// The data of the events among these replies, in order.
std::string eventsIn(const std::string& replies)
{
    std::string all;
    const auto messages = json::asArray(json::parse(replies));
    for (const auto& message : *messages)
        if (const auto object = json::asObject(message); object->has("data"))
            all += (all.empty() ? "" : " ") + json::write(object->get("data"));
    return all;
}

std::string eventsIn(const std::vector<std::string>& frames)
{
    std::string all;
    for (const auto& frame : frames)
        all += (all.empty() ? "" : " ") + eventsIn(frame);
    return all;
}

TEST(BayeuxSeries, endsWithItsWebSocketAndLeavesNothingBehind)
{
    Bus bus;
    bus.join(bus.socket());
    const auto session = bus.server->findSession(bus.client);
    auto series = session->openSeries("/series", false);
    EXPECT_TRUE(series->deliver(numbered(1)));
    EXPECT_EQ(eventsIn(bus.sink->take()), "1");
    bus.sink->broken = true;
    EXPECT_FALSE(series->deliver(numbered(2))) << "found out while it is sent";
    EXPECT_TRUE(series->isLost());
    EXPECT_TRUE(series->isAway());
    EXPECT_FALSE(series->deliver(numbered(3)));
    session->deliver(std::make_shared<const BayeuxEvent>("/other", 4));

    // On its next socket the client gets what waited of other channels, and the series when it is opened again.
    bus.sink = std::make_shared<RecordingSink>();
    bus.ask(Bus::kConnect, bus.socket());
    EXPECT_EQ(eventsIn(bus.sink->take()), "4");
    auto again = session->openSeries("/series", true);
    EXPECT_FALSE(series->deliver(numbered(5)));
    EXPECT_TRUE(again->hasRoom());
    EXPECT_TRUE(again->deliver(numbered(2)));
    EXPECT_EQ(eventsIn(bus.sink->take()), "2");

    // Another socket while the server believes in the first one.
    bus.sink = std::make_shared<RecordingSink>();
    bus.ask(Bus::kConnect, bus.socket());
    EXPECT_FALSE(again->deliver(numbered(3)));
    session->disconnect();
    EXPECT_TRUE(session->openSeries("/series", true)->isLost());
}

TEST(BayeuxSeries, beginsByLongPollingWithTheNextConnect)
{
    Bus bus;
    bus.join(bus.http());
    const auto session = bus.server->findSession(bus.client);
    auto series = session->openSeries("/series", false);
    EXPECT_TRUE(series->hasRoom());
    EXPECT_TRUE(series->deliver(numbered(1)));
    EXPECT_TRUE(series->deliver(numbered(2)));
    session->deliver(std::make_shared<const BayeuxEvent>("/other", 3));

    auto again = session->openSeries("/series", true);
    EXPECT_TRUE(series->isLost());
    EXPECT_FALSE(again->hasRoom()) << "what is sent now may go to a connection that is gone";
    EXPECT_EQ(eventsIn(bus.ask(Bus::kConnect)), "3");
    EXPECT_TRUE(again->hasRoom());

    // A connect that is held gives way.
    auto held = bus.post(Bus::kConnect, bus.http());
    ASSERT_FALSE(held.isReady());
    auto third = session->openSeries("/series", true);
    ASSERT_TRUE(held.isReady());
    EXPECT_EQ(eventsIn(held.get()), "");
    EXPECT_FALSE(third->hasRoom());
    held = bus.post(Bus::kConnect, bus.http());
    EXPECT_TRUE(third->hasRoom());
    EXPECT_FALSE(third->isAway());
    EXPECT_TRUE(third->deliver(numbered(4)));
    EXPECT_EQ(eventsIn(held.get()), "4");

    EXPECT_TRUE(third->deliver(numbered(5)));
    third->close();
    EXPECT_EQ(bus.ask(R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling",)"
                      R"("advice":{"timeout":0}}])")
                  .find("/series"),
              std::string::npos);
    held = bus.post(Bus::kConnect, bus.http());
    held.cancel();
    EXPECT_TRUE(session->openSeries("/series", false)->isAway()) << "its client went away";
}

TEST(BayeuxSeries, goesOnWithAcknowledgement)
{
    Bus bus;
    bus.join(bus.socket(), true, R"({"ack":true})");
    const auto session = bus.server->findSession(bus.client);
    auto series = session->openSeries("/series", false);
    EXPECT_TRUE(series->deliver(numbered(1)));
    bus.server->webSocketClosed(bus.sink);
    EXPECT_TRUE(series->isAway());
    EXPECT_TRUE(series->deliver(numbered(2)));
    bus.sink = std::make_shared<RecordingSink>();
    const char* connect =
        R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"websocket","ext":{"ack":0}}])";
    bus.ask(connect, bus.socket());
    EXPECT_EQ(eventsIn(bus.sink->take()), "1 2");
    auto again = session->openSeries("/series", true);
    EXPECT_TRUE(again->deliver(numbered(2)));
    bus.ask(connect, bus.socket());
    EXPECT_EQ(eventsIn(bus.sink->take()), "2") << "those that were not confirmed are asked for anew";
}

} // namespace
} // namespace connector::bayeux
