#include <chrono>

#include <gtest/gtest.h>

#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/bayeux/BayeuxServiceProviderImpl.h"
#include "connector/bayeux/BayeuxWebSocketServiceProvider.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/http/PocoHttpsServer.h"
#include "connector/http/http_client.h"

namespace connector::bayeux {
namespace {

using http::test::eventually;
using http::test::WireClient;

constexpr std::size_t kSubscribers = 1'000;

/// A client of the bus over a real socket.
class Subscriber
{
public:
    explicit Subscriber(std::uint16_t port) : wire_(port)
    {
        wire_.send("GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                   "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
        wire_.receiveHead();
        const auto answer = ask(R"([{"channel":"/meta/handshake","version":"1.0",)"
                                R"("supportedConnectionTypes":["websocket"]}])");
        const auto at = answer.find("\"clientId\":\"") + 12;
        id_ = answer.substr(at, answer.find('"', at) - at);
    }

    std::string send(const std::string& channel, const std::string& members)
    {
        return ask(R"([{"channel":")" + channel + R"(","clientId":")" + id_ + R"(",)" + members + "}]");
    }
    std::string ask(const std::string& text)
    {
        // Short texts only; a mask that changes nothing.
        const auto size = static_cast<char>(text.size());
        wire_.send(text.size() < 126
                       ? std::string{'\x81', static_cast<char>('\x80' | size), 0, 0, 0, 0} + text
                       : std::string{'\x81', '\xfe', static_cast<char>(text.size() >> 8), size, 0, 0, 0, 0} + text);
        return receive();
    }
    std::string receive()
    {
        const std::string head = wire_.take(2);
        std::size_t size = static_cast<unsigned char>(head[1]);
        if (size >= 126) {
            std::size_t whole = 0;
            for (const char c : wire_.take(size == 126 ? 2 : 8))
                whole = whole << 8 | static_cast<unsigned char>(c);
            size = whole;
        }
        return wire_.take(size);
    }
    const std::string& id() const { return id_; }

private:
    WireClient wire_;
    std::string id_;
};

TEST(BayeuxCrowd, isNotHeldUpByOneThatDoesNotRead)
{
    const auto registry = std::make_shared<ConnectorImpl2>("crowd");
    const auto bus = std::make_shared<BayeuxServerImpl>();
    registry->addServiceProvider("webSocket", std::make_shared<BayeuxWebSocketServiceProvider>());
    registry->addServiceProvider("service", std::make_shared<BayeuxServiceProviderImpl>(bus));
    const auto server = std::make_shared<
        http::PocoHttpsServer>(http::ServerSettings(), [registry](std::unique_ptr<http::HttpRequest> request) {
        http::PocoHttpsServer::Exchange exchange;
        exchange.answer = registry->handle(std::move(request), Address{"webSocket", "service"}, registry->newContext());
        return exchange;
    });
    server->open();

    std::vector<std::unique_ptr<Subscriber>> crowd;
    for (std::size_t i = 0; i < kSubscribers; ++i) {
        crowd.push_back(std::make_unique<Subscriber>(server->port()));
        const char* const channels = i == 0 ? R"("subscription":["/all","/much"])" : R"("subscription":"/all")";
        ASSERT_NE(crowd.back()->send("/meta/subscribe", channels).find("\"successful\":true"), std::string::npos);
    }

    // The first one gets far more than sockets and queues hold, and reads nothing of it.
    const std::string heap(256u << 10, 'x');
    const auto isThere = [&] { return bus->findSession(crowd[0]->id()) != nullptr; };
    for (int i = 0; i < 1'000 && isThere(); ++i)
        bus->publish("/much", heap);
    EXPECT_TRUE(eventually([&] { return !isThere(); })) << "it did not keep up";
    EXPECT_EQ(bus->counters().overflows, 1u);

    for (int n = 0; n < 10; ++n)
        bus->publish("/all", n);
    for (std::size_t i = 1; i < kSubscribers; ++i)
        for (int n = 0; n < 10; ++n)
            ASSERT_EQ(crowd[i]->receive(), R"([{"channel":"/all","data":)" + std::to_string(n) + "}]");

    // What it learns when it comes back.
    Subscriber again(server->port());
    const auto told =
        again.ask(R"([{"channel":"/meta/connect","connectionType":"websocket","clientId":")" + crowd[0]->id() + "\"}]");
    EXPECT_NE(told.find("\"error\":\"402:"), std::string::npos) << told;
    EXPECT_NE(told.find("\"reconnect\":\"handshake\""), std::string::npos) << told;

    const auto stopping = std::chrono::steady_clock::now();
    registry->removeServiceProvider("service");
    server->close();
    const auto took = std::chrono::steady_clock::now() - stopping;
    RecordProperty("millisecondsToStop",
                   std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
    EXPECT_EQ(bus->counters().sessions, 0u);
    EXPECT_EQ(server->counters().connections, 0u);
}

} // namespace
} // namespace connector::bayeux
