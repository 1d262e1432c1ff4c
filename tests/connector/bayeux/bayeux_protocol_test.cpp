#include "connector/bayeux/ScriptBus.h"
#include "connector/bayeux/bayeux_fixture.h"
#include "connector/core/ServiceFault.h"
#include "connector/http/HttpBody.h"

namespace connector::bayeux {
namespace {

struct Case
{
    const char* request;
    const char* reply;
};

void expectReplies(Bus& bus, const std::vector<Case>& cases, const BayeuxOrigin& origin)
{
    for (const auto& c : cases)
        EXPECT_EQ(bus.ask(c.request, origin), bus.is(c.reply)) << c.request;
}

const std::vector<Case> kRefusedHandshakes = {
    {R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":["callback-polling"],"id":"1"}])",
     R"([{"channel":"/meta/handshake","successful":false,"version":"1.0","minimumVersion":"1.0",
         "supportedConnectionTypes":$T,"error":"406","id":"1","advice":$NONE}])"},
    {R"([{"channel":"/meta/handshake","version":"0.9","supportedConnectionTypes":["websocket"]}])",
     R"([{"channel":"/meta/handshake","successful":false,"version":"1.0","minimumVersion":"1.0",
         "supportedConnectionTypes":$T,"error":"400","advice":$NONE}])"},
    {R"([{"channel":"/meta/handshake","version":"2.0","minimumVersion":"1.1","supportedConnectionTypes":["websocket"]}])",
     R"([{"channel":"/meta/handshake","successful":false,"version":"1.0","minimumVersion":"1.0",
         "supportedConnectionTypes":$T,"error":"400","advice":$NONE}])"},
    {R"([{"channel":"/meta/handshake","supportedConnectionTypes":["websocket"]}])",
     R"([{"channel":"/meta/handshake","successful":false,"version":"1.0","minimumVersion":"1.0",
         "supportedConnectionTypes":$T,"error":"400","advice":$NONE}])"},
    {R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":"websocket"}])",
     R"([{"channel":"/meta/handshake","successful":false,"version":"1.0","minimumVersion":"1.0",
         "supportedConnectionTypes":$T,"error":"400","advice":$NONE}])"},
};

/// Of a client that is there.
const std::vector<Case> kOrdinary = {
    {R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":"/a/b","id":"3"}])",
     R"([{"channel":"/meta/subscribe","successful":true,"clientId":"$C","subscription":"/a/b","id":"3"}])"},
    {R"({"channel":"/meta/subscribe","clientId":"$C","subscription":["/s/*","/s/**","/x"],"id":4})",
     R"([{"channel":"/meta/subscribe","successful":true,"clientId":"$C","subscription":["/s/*","/s/**","/x"],"id":4}])"},
    // All or nothing: /good is not subscribed to.
    {R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":["/good","/a/*/b"]}])",
     R"([{"channel":"/meta/subscribe","successful":false,"clientId":"$C","subscription":["/good","/a/*/b"],"error":"400"}])"},
    {R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":"/meta/**"}])",
     R"([{"channel":"/meta/subscribe","successful":false,"clientId":"$C","subscription":"/meta/**","error":"403"}])"},
    {R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":5}])",
     R"([{"channel":"/meta/subscribe","successful":false,"clientId":"$C","subscription":5,"error":"400"}])"},
    {R"([{"channel":"/meta/subscribe","clientId":"$C"}])",
     R"([{"channel":"/meta/subscribe","successful":false,"clientId":"$C","error":"400"}])"},
    {R"([{"channel":"/meta/unsubscribe","clientId":"$C","subscription":["/x"],"id":"u"}])",
     R"([{"channel":"/meta/unsubscribe","successful":true,"clientId":"$C","subscription":["/x"],"id":"u"}])"},
    {R"([{"channel":"/meta/unsubscribe","clientId":"$C","subscription":"/a/b*"}])",
     R"([{"channel":"/meta/unsubscribe","successful":false,"clientId":"$C","subscription":"/a/b*","error":"400"}])"},
    {R"([{"channel":"/other","clientId":"$C","data":{"x":1},"id":"7","ext":{"y":2}}])",
     R"([{"channel":"/other","successful":true,"id":"7"}])"},
    {R"([{"channel":"/other","clientId":"$C","data":null}])", R"([{"channel":"/other","successful":true}])"},
    {R"([{"channel":"/other","clientId":"$C"}])", R"([{"channel":"/other","successful":false,"error":"400"}])"},
    {R"([{"channel":"/other/**","clientId":"$C","data":1}])",
     R"([{"channel":"/other/**","successful":false,"error":"400"}])"},
    {R"([{"channel":"/meta/other","clientId":"$C","data":1}])",
     R"([{"channel":"/meta/other","successful":false,"clientId":"$C","error":"404"}])"},
    {R"([{"channel":"/service/other","clientId":"$C","data":1}])",
     R"([{"channel":"/service/other","successful":false,"error":"404"}])"},
    {R"([{"channel":"/other","data":1,"id":"8"}])",
     R"([{"channel":"/other","successful":false,"error":"402","id":"8","advice":$AGAIN}])"},
    {R"([{"channel":"/other","clientId":"a:b:c","data":1}])",
     R"([{"channel":"/other","successful":false,"error":"402","advice":$AGAIN}])"},
    {R"([{"channel":"/other","clientId":7,"data":1}])",
     R"([{"channel":"/other","successful":false,"error":"400","advice":$AGAIN}])"},
    {R"([{"channel":"/meta/connect","clientId":"nobody","connectionType":"long-polling","id":"9"}])",
     R"([{"channel":"/meta/connect","successful":false,"clientId":"nobody","error":"402","id":"9","advice":$AGAIN}])"},
    {R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"callback-polling"}])",
     R"([{"channel":"/meta/connect","successful":false,"clientId":"$C","error":"400","advice":$NONE}])"},
    {R"([{"channel":"/meta/disconnect","clientId":"nobody"}])",
     R"([{"channel":"/meta/disconnect","successful":false,"clientId":"nobody","error":"402","advice":$AGAIN}])"},
    // What is wrong does not stop the others.
    {R"([1,{"id":"n"},{"channel":7},{"channel":"/x","clientId":"$C","data":1,"id":{}},{"channel":"//","id":2},
         {"channel":"/x","clientId":"$C","data":1,"id":true},{"channel":"/x","clientId":"$C","data":1,"id":"ok"}])",
     R"([{"successful":false,"error":"400"},{"successful":false,"error":"400","id":"n"},{"successful":false,"error":"400"},
         {"channel":"/x","successful":false,"error":"400"},{"channel":"//","successful":false,"error":"400","id":2},
         {"channel":"/x","successful":false,"error":"400"},
         {"channel":"/x","successful":true,"id":"ok"}])"},
};

TEST(BayeuxProtocol, handshakes)
{
    for (const bool webSocket : {false, true}) {
        Bus bus;
        const auto origin = webSocket ? bus.socket() : bus.http();
        const auto reply =
            bus.post(R"([{"channel":"/meta/handshake","version":"1.0beta","minimumVersion":"0.9","id":"01",
            "supportedConnectionTypes":["callback-polling","long-polling"],"ext":{"ack":true}},
            {"channel":"/meta/connect","clientId":"x","connectionType":"long-polling"}])",
                     origin)
                .get();
        bus.client = json::requireString(*json::asObject(json::asArray(json::parse(reply))->get(0)), "clientId");
        EXPECT_GE(bus.client.size(), 32u);
        EXPECT_EQ(normal(reply),
                  bus.is(R"([{"channel":"/meta/handshake","successful":true,"clientId":"$C","version":"1.0",
            "minimumVersion":"1.0","supportedConnectionTypes":$T,"id":"01","advice":$RETRY,"ext":{"ack":true}}])"));
        expectReplies(bus, kRefusedHandshakes, origin);
        EXPECT_NE(bus.post(kRefusedHandshakes[3].request, origin).get().find("400:version:A handshake needs a version"),
                  std::string::npos);
        EXPECT_EQ(bus.server->counters().sessions, 1u);
    }
}

TEST(BayeuxProtocol, ordinaryMessagesOverBothTransports)
{
    for (const bool webSocket : {false, true}) {
        Bus bus;
        const auto origin = webSocket ? bus.socket() : bus.http();
        bus.join(origin, false);
        expectReplies(bus, kOrdinary, origin);
        EXPECT_EQ(bus.server->counters().subscriptions, 3u); // /a/b, /s/*, /s/**
        EXPECT_TRUE(bus.server->subscribers("/good").empty());
        EXPECT_TRUE(bus.sink->take().empty());
    }
}

TEST(BayeuxProtocol, whatIsNoArrayOfMessages)
{
    Bus bus;
    for (const char* body : {"", "[", "5", "\"x\"", "null", "[] []"}) {
        auto answer = bus.post(body, bus.http());
        try {
            answer.get();
            FAIL() << body;
        } catch (const http::HttpFault& fault) {
            EXPECT_EQ(fault.status(), 400u) << body;
        }
        EXPECT_EQ(bus.ask(body, bus.socket()), R"([{"error":"400","successful":false}])") << body;
    }
    EXPECT_EQ(bus.ask("[]"), R"([{"error":"400","successful":false}])");
    EXPECT_EQ(bus.ask("[]", bus.socket()), "");
}

/// A message to /x with such data, and an id.
std::string publishing(const std::string& data, int id)
{
    return R"({"channel":"/x","clientId":"$C","data":)" + data + R"(,"id":)" + std::to_string(id) + "}";
}

TEST(BayeuxProtocol, whatOneMessageGetsWrongIsItsOwnFault)
{
    std::string many = "[0";
    for (int i = 0; i < 100'000; ++i)
        many += ",0";
    const std::string odd[] = {std::string(63, '[') + std::string(63, ']'),
                               std::string(200'000, '[') + std::string(200'000, ']'),
                               many + "]",
                               R"({"a":1,"a":2})",
                               "1e999",
                               "[1,]",
                               "tru",
                               R"("\q")",
                               "{\"a\" 1}",
                               R"("\ud8")"};
    std::string batch;
    std::string replies;
    int id = 0;
    for (const auto& data : odd) {
        batch += publishing(data, id) + ",";
        replies += R"({"channel":"/x","error":"400","id":)" + std::to_string(id++) + R"(,"successful":false},)";
        batch += publishing("\"[{\"", id) + ",";
        replies += R"({"channel":"/x","id":)" + std::to_string(id++) + R"(,"successful":true},)";
    }
    batch.back() = ']';
    replies.back() = ']';
    for (const bool webSocket : {false, true}) {
        Bus bus;
        const auto origin = webSocket ? bus.socket() : bus.http();
        bus.join(origin);
        EXPECT_EQ(bus.ask("[" + batch, origin), "[" + replies);
        EXPECT_EQ(bus.server->counters().published, std::size(odd));
        // Alone, and without an array around it, too.
        const auto named = bus.post(publishing("[1,]", 7), origin).get();
        EXPECT_NE(named.find(R"("error":"400:data:)"), std::string::npos) << named;
        EXPECT_NE(named.find(R"("id":7)"), std::string::npos) << named;
        EXPECT_EQ(
            bus.ask(R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"websocket","ext":{"a":1,"a":2}}])",
                    origin),
            bus.is(R"([{"channel":"/meta/connect","successful":false,"clientId":"$C","error":"400",
            "advice":{"reconnect":"retry","interval":5000,"timeout":30000}}])"));
        EXPECT_EQ(bus.ask(R"([{"channel":"/meta/handshake","version":"1.0","ext":1e999}])", origin),
                  bus.is(R"([{"channel":"/meta/handshake","successful":false,"version":"1.0","minimumVersion":"1.0",
            "supportedConnectionTypes":$T,"error":"400","advice":$NONE}])"));
    }
}

TEST(BayeuxProtocol, halfASurrogatePairIsPassedOnAsItIsWritten)
{
    for (const bool webSocket : {false, true}) {
        Bus bus;
        const auto origin = webSocket ? bus.socket() : bus.http();
        const std::string data = R"({"\udc00" : "\ud83d", "pair":"\ud83d\ude00", "two":"\ud83d\ud83d\ude00"})";
        std::string toScripts;
        std::string toFunctions;
        ScriptBus scripts(bus.server);
        const auto undo =
            scripts.subscribe("/x", [&](const std::string&, const std::string& json) { toScripts = json; });
        const auto mine =
            bus.server->subscribe("/y", [&](const BayeuxMessage& m) { toFunctions = json::write(m.data); });
        bus.join(origin);
        bus.subscribe("/x", origin);
        std::string got =
            bus.post("[" + publishing(data, 1) + R"(,{"channel":"/y","clientId":"$C","data":"\ud83d"}])", origin).get();
        EXPECT_EQ(got.find(R"([{"channel":"/x","successful":true,"id":1},{"channel":"/y","successful":true})"), 0u)
            << got;
        EXPECT_EQ(toScripts, data);
        EXPECT_EQ(toFunctions, "\"\xEF\xBF\xBD\"");
        scripts.publish("/x", "\"\\ud83d\"", {});
        EXPECT_EQ(toScripts, "\"\\ud83d\"");
        EXPECT_THROW(scripts.publish("/x", "tru", {}), std::invalid_argument);
        if (!webSocket)
            got += bus.post(Bus::kConnect, origin).get();
        for (const auto& frame : bus.sink->take())
            got += frame;
        EXPECT_NE(got.find(event("/x", data)), std::string::npos) << got;
        EXPECT_NE(got.find(event("/x", "\"\\ud83d\"")), std::string::npos) << got;
        // Who works with it gets text.
        const auto service =
            bus.server->handleService("/service/x", [](const BayeuxMessage&) { return Poco::Dynamic::Var(); });
        EXPECT_EQ(bus.ask(R"([{"channel":"/service/x","clientId":"$C","data":"\ud83d","id":2}])", origin),
                  R"([{"channel":"/service/x","error":"400","id":2,"successful":false}])");
    }
}

TEST(BayeuxProtocol, whatIsTooMuchIsRefusedMessageByMessage)
{
    Bus bus;
    bus.join(bus.http());
    auto limits = bus.server->limits();
    limits.messageBytes = 1'000;
    limits.batch = 3;
    bus.server->setLimits(limits);
    const std::string refused = R"({"channel":"/x","error":"413","id":1,"successful":false})";
    EXPECT_EQ(bus.ask("[1,2,3,4]"), R"([{"error":"413","successful":false}])");
    EXPECT_EQ(bus.ask("[" + publishing("1", 1) + ",2,{},[]]"), "[" + refused + "]");
    for (const auto& origin : {bus.http(), bus.socket()})
        EXPECT_EQ(
            bus.ask("[" + publishing('"' + std::string(1'000, 'x') + '"', 1) + "," + publishing("1", 1) + "]", origin),
            "[" + refused + "," + refused + "]");
    const auto connect =
        bus.ask(R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling","x":")" +
                std::string(1'000, 'x') + "\"}]");
    EXPECT_EQ(connect, bus.is(R"([{"channel":"/meta/connect","successful":false,"clientId":"$C","error":"413",
        "advice":{"reconnect":"retry","interval":5000,"timeout":30000}}])"));
    EXPECT_EQ(bus.server->counters().published, 0u);
}

TEST(BayeuxProtocol, connectsAreAnsweredAtOnceTheFirstTimeAndHeldThen)
{
    Bus bus;
    bus.join(bus.http(), false);
    EXPECT_EQ(bus.ask(Bus::kConnect),
              bus.is(R"([{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"c","advice":$RETRY}])"));
    auto held = bus.post(Bus::kConnect, bus.http());
    EXPECT_FALSE(held.isReady());
    // A second one ends the first, which takes no events.
    auto second = bus.post(Bus::kConnect, bus.http());
    ASSERT_TRUE(held.isReady());
    EXPECT_EQ(normal(held.get()), bus.is(R"([{"channel":"/meta/connect","successful":false,"clientId":"$C","id":"c",
        "error":"409"}])"));
    EXPECT_FALSE(second.isReady());
    EXPECT_EQ(bus.ask(R"([{"channel":"/meta/disconnect","clientId":"$C","id":"d"}])"),
              bus.is(R"([{"channel":"/meta/disconnect","successful":true,"clientId":"$C","id":"d"}])"));
    ASSERT_TRUE(second.isReady());
    EXPECT_EQ(normal(second.get()), bus.is(R"([{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"c",
        "advice":$NONE}])"));
    EXPECT_EQ(bus.server->counters().sessions, 0u);
    EXPECT_EQ(bus.ask(Bus::kConnect),
              bus.is(R"([{"channel":"/meta/connect","successful":false,"clientId":"$C","error":"402","id":"c",
        "advice":$AGAIN}])"));
    // And a welcome says "retry" again.
    bus.join(bus.http(), false);
}

TEST(BayeuxProtocol, connectInABatchAndWithATimeoutOfItsOwnIsNotHeld)
{
    Bus bus;
    bus.join(bus.http());
    EXPECT_EQ(bus.ask(R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":"/a"},
        {"channel":"/a","clientId":"$C","data":1,"id":"p"},
        {"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling"}])"),
              bus.is(R"([{"channel":"/meta/subscribe","successful":true,"clientId":"$C","subscription":"/a"},
        {"channel":"/a","successful":true,"id":"p"},{"channel":"/a","data":1},
        {"channel":"/meta/connect","successful":true,"clientId":"$C"}])"));
    EXPECT_EQ(bus.ask(R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling",
        "advice":{"timeout":0}}])"),
              bus.is(R"([{"channel":"/meta/connect","successful":true,"clientId":"$C"}])"));
}

TEST(BayeuxProtocol, holdsNoLongerThanAdvertised)
{
    for (const bool webSocket : {false, true}) {
        Bus bus;
        auto limits = bus.server->limits();
        limits.timeout = std::chrono::milliseconds(20);
        bus.server->setLimits(limits);
        const auto origin = webSocket ? bus.socket() : bus.http();
        bus.join(origin);
        const auto begin = std::chrono::steady_clock::now();
        auto held = bus.post(R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"websocket","id":"h",
            "advice":{"timeout":90000}}])",
                             origin);
        const auto reply = bus.is(R"([{"channel":"/meta/connect","successful":true,"clientId":"$C","id":"h"}])");
        if (!webSocket) {
            EXPECT_EQ(normal(held.get()), reply);
        } else {
            EXPECT_EQ(held.get(), "");
            ASSERT_TRUE(eventually([&] { return !bus.sink->frames().empty(); }));
            EXPECT_EQ(normal(bus.sink->take().front()), reply);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    }
}

TEST(BayeuxProtocol, sessionsBelongToWhereTheyWereBorn)
{
    Bus bus;
    const char* publish = R"([{"channel":"/a","clientId":"$C","data":1}])";
    const auto allowed = bus.is(R"([{"channel":"/a","successful":true}])");
    const auto refused = bus.is(R"([{"channel":"/a","successful":false,"error":"402","advice":$AGAIN}])");
    bus.join(bus.http("one"));
    EXPECT_EQ(bus.ask(publish, bus.http("one")), allowed);
    EXPECT_EQ(bus.ask(publish, bus.socket("one")), allowed);
    EXPECT_EQ(bus.ask(publish, bus.http("two")), refused);
    EXPECT_EQ(bus.ask(publish, bus.socket("two")), refused);
    EXPECT_EQ(bus.ask(publish, bus.http()), refused);

    bus.join(bus.socket());
    const auto first = std::exchange(bus.sink, std::make_shared<RecordingSink>());
    EXPECT_EQ(bus.ask(publish, bus.socket()), refused);
    // Once the first is gone, or with a connect, the id is enough.
    EXPECT_EQ(bus.ask(Bus::kConnect, bus.socket()), "");
    EXPECT_EQ(bus.ask(publish, bus.socket()), allowed);
    bus.server->webSocketClosed(bus.sink);
    bus.sink = std::make_shared<RecordingSink>();
    EXPECT_EQ(bus.ask(publish, bus.socket()), allowed);
}

TEST(BayeuxProtocol, refusesWhenStopped)
{
    Bus bus;
    bus.server->stop();
    auto answer = bus.post("[]", bus.http());
    try {
        answer.get();
        FAIL();
    } catch (const ServiceFault& fault) {
        EXPECT_EQ(fault.code(), "unavailable");
    }
    bus.server->start();
    bus.join(bus.http());
    EXPECT_EQ(bus.server->counters().sessions, 1u);
}

} // namespace
} // namespace connector::bayeux
