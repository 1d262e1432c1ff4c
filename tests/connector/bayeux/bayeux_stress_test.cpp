#include <atomic>
#include <deque>
#include <thread>

#include "connector/bayeux/bayeux_fixture.h"

namespace connector::bayeux {
namespace {

using namespace std::chrono_literals;

void readNumbers(const std::string& text, const std::string& channel, std::vector<int>& numbers)
{
    if (text.empty())
        return;
    const auto messages = json::asArray(json::parse(text));
    for (const auto& value : *messages) {
        const auto message = json::asObject(value);
        if (json::optionalString(*message, "channel") == channel && message->has("data"))
            numbers.push_back(static_cast<int>(json::requireInteger(*message, "data")));
    }
}

/// A client that polls, now and then gives a connect up, and moves to a WebSocket and back.
void readAll(BayeuxServerImpl& server, const std::string& client, std::size_t count, std::vector<int>& numbers,
             std::atomic<std::size_t>& seen)
{
    const std::string connect =
        R"([{"channel":"/meta/connect","clientId":")" + client + R"(","connectionType":"long-polling"}])";
    for (unsigned turn = 1; numbers.size() < count; ++turn) {
        seen = numbers.size();
        if (turn % 5 == 0) {
            const auto sink = std::make_shared<RecordingSink>();
            (void)server.handle(connect, {"", sink, ""}).get();
            std::this_thread::yield();
            server.webSocketClosed(sink);
            for (const auto& frame : sink->take())
                readNumbers(frame, "/n", numbers);
            continue;
        }
        auto answer = server.handle(connect, {});
        if (turn % 3 == 0)
            answer.cancel();
        try {
            readNumbers(answer.get(), "/n", numbers);
        } catch (const FutureCancelled&) {
            // What was for it comes with the next.
        }
    }
    seen = numbers.size();
}

TEST(BayeuxStress, everyEventArrivesOnceAndInOrderWhateverBreaks)
{
    Bus bus;
    auto limits = bus.server->limits();
    limits.timeout = 5ms;
    limits.queueMessages = 100'000;
    bus.server->setLimits(limits);
    constexpr int kEvents = 2'000;
    std::deque<std::vector<int>> numbers(4);
    std::deque<std::atomic<std::size_t>> seen(4);
    std::vector<std::thread> readers;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const auto client = bus.join(bus.http());
        bus.subscribe("/n", bus.http());
        readers.emplace_back([&, i, client] { readAll(*bus.server, client, kEvents, numbers[i], seen[i]); });
    }
    std::vector<int> expected;
    for (int i = 0; i < kEvents; ++i) {
        expected.push_back(i);
        // Not far ahead of them, so that there are many small answers.
        for (const auto& count : seen)
            EXPECT_TRUE(eventually([&] { return count + 10 >= static_cast<std::size_t>(i); }));
        bus.server->publish("/n", i);
    }
    for (auto& reader : readers)
        reader.join();
    for (const auto& mine : numbers)
        EXPECT_EQ(mine, expected);
}

/// Everything at once; every connect is answered in the end.
TEST(BayeuxStress, startsAndStopsUnderLoad)
{
    Bus bus;
    auto limits = bus.server->limits();
    limits.timeout = 3ms;
    limits.maxInterval = 50ms;
    limits.queueMessages = 20;
    bus.server->setLimits(limits);
    ChannelOptions options;
    options.retain = true;
    options.presence = true;
    bus.server->setChannelOptions("/n", options);
    std::atomic<bool> done{false};
    std::atomic<int> answered{0};
    const auto client = [&](bool webSocket) {
        const BayeuxOrigin origin{"", webSocket ? std::make_shared<RecordingSink>() : nullptr, ""};
        while (!done) {
            try {
                const auto reply = bus.server
                                       ->handle(R"([{"channel":"/meta/handshake","version":"1.0",
                    "supportedConnectionTypes":["websocket"]}])",
                                                origin)
                                       .get();
                const auto id =
                    json::requireString(*json::asObject(json::asArray(json::parse(reply))->get(0)), "clientId");
                const auto send = [&](const std::string& message) {
                    return bus.server->handle(replaced(message, "$C", id), origin).get();
                };
                send(R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":["/n","/n/*","/**"]},
                    {"channel":"/n","clientId":"$C","data":1}])");
                for (int i = 0; i < 5; ++i)
                    send(R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling"}])");
                send(R"([{"channel":"/meta/unsubscribe","clientId":"$C","subscription":"/n"}])");
                send(R"([{"channel":"/meta/disconnect","clientId":"$C"}])");
                ++answered;
            } catch (const std::exception&) {
                std::this_thread::yield(); // the server is stopped just now
            }
        }
        if (origin.webSocket)
            bus.server->webSocketClosed(origin.webSocket);
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&client, i] { client(i % 2 == 0); });
    threads.emplace_back([&] {
        while (!done)
            bus.server->publish("/n", 2);
    });
    for (int turn = 1; turn <= 100 && !HasFailure(); ++turn) {
        EXPECT_TRUE(eventually([&] { return answered >= turn; }));
        for (const auto& session : bus.server->sessions()) {
            if (turn % 4 == 0)
                session->disconnect();
        }
        bus.server->stop();
        EXPECT_EQ(bus.server->counters().subscriptions, 0u);
        bus.server->start();
    }
    done = true;
    for (auto& thread : threads)
        thread.join();
    bus.server->stop();
    const auto counters = bus.server->counters();
    EXPECT_EQ(counters.sessions + counters.subscriptions, 0u);
    EXPECT_EQ(counters.channels, 1u);
}

} // namespace
} // namespace connector::bayeux
