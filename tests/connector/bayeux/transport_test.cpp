#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <gtest/gtest.h>

#include "connector/bayeux/BayeuxHttpServiceProvider.h"
#include "connector/bayeux/BayeuxLongPollServiceProvider.h"
#include "connector/bayeux/BayeuxServiceProviderImpl.h"
#include "connector/bayeux/BayeuxWebSocketServiceProvider.h"
#include "connector/bayeux/fake_server.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/core/ServiceFault.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/http/PocoHttpsServer.h"
#include "connector/http/WebSocket.h"
#include "connector/http/http_client.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {
namespace {

using http::HttpRequest;
using http::HttpResponse;
using http::test::eventually;
using test::FakeServer;
using Fields = std::vector<std::pair<std::string, std::string>>;

constexpr std::size_t kMiB = 1u << 20;

/// Answers with its own name.
class Named final : public http::HttpServiceProvider
{
public:
    explicit Named(std::string name) : name_(std::move(name)) {}
    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&&, Address&& rest, std::shared_ptr<Context>&&) override
    {
        return makeReadyFuture<std::unique_ptr<Message>>(
            std::make_unique<HttpResponse>(200, "text/plain", name_ + " > " + toString(rest)));
    }

private:
    const std::string name_;
};

/// A connection that notes what is sent.
class Connection final : public http::WebSocketConnection
{
public:
    bool send(std::string message, bool) override
    {
        sent.push_back(std::move(message));
        return true;
    }
    bool send(std::shared_ptr<const std::string> text, http::SendWhen) override
    {
        return send(std::string(*text), false);
    }
    bool waitForRoom(std::chrono::milliseconds) override { return true; }
    void close(std::uint16_t code, const std::string&) override { codes.push_back(code); }
    std::size_t queuedBytes() const override { return sent.size(); }

    std::vector<std::string> sent;
    std::vector<std::uint16_t> codes;
};

class Transport : public testing::Test
{
protected:
    Transport()
    {
        connector->addServiceProvider("longPoll", std::make_shared<BayeuxLongPollServiceProvider>());
        connector->addServiceProvider("webSocket", std::make_shared<BayeuxWebSocketServiceProvider>());
        connector->addServiceProvider("service", std::make_shared<BayeuxServiceProviderImpl>(server));
    }

    static std::unique_ptr<HttpRequest> request(const std::string& method, const std::string& body,
                                                const Fields& fields = {{"Content-Type", "application/json"}})
    {
        auto made = std::make_unique<HttpRequest>();
        made->method = method;
        made->path = "/messageservice/async/connect";
        made->peerAddress = "127.0.0.9";
        made->body = body;
        for (const auto& [name, value] : fields)
            made->headers.add(name, value);
        return made;
    }
    static std::unique_ptr<HttpRequest> handshake()
    {
        return request("GET", "",
                       {{"Upgrade", "websocket"},
                        {"Connection", "Upgrade"},
                        {"Sec-WebSocket-Version", "13"},
                        {"Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="}});
    }

    std::unique_ptr<HttpResponse> send(std::unique_ptr<HttpRequest> made, Address address)
    {
        auto context = connector->newContext();
        context->setHttpSession(session);
        auto answer = connector->handle(std::move(made), std::move(address), std::move(context)).get();
        return std::unique_ptr<HttpResponse>(&dynamic_cast<HttpResponse&>(*answer.release()));
    }
    std::unique_ptr<HttpResponse> post(const std::string& body)
    {
        return send(request("POST", body), Address{"longPoll", "service"});
    }
    unsigned faultOf(const std::string& body)
    {
        try {
            return post(body)->status;
        } catch (const http::HttpFault& fault) {
            return fault.status();
        }
    }
    std::shared_ptr<http::WebSocketEndpoint> open()
    {
        const auto response = send(handshake(), Address{"webSocket", "service"});
        EXPECT_EQ(response->status, 101u);
        auto endpoint = response->upgrade->endpoint;
        endpoint->opened(connection);
        return endpoint;
    }

    const std::shared_ptr<FakeServer> server = std::make_shared<FakeServer>();
    const std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    const std::shared_ptr<Connection> connection = std::make_shared<Connection>();
    const std::shared_ptr<http::HttpSession> session =
        std::make_shared<http::HttpSessionManagerImpl>()->create()->session;
};

TEST_F(Transport, IsChosenByTheRequest)
{
    for (const char* name : {"poll", "socket", "third"})
        connector->addServiceProvider(name, std::make_shared<Named>(name));
    connector->addServiceProvider("two", std::make_shared<BayeuxHttpServiceProvider>(
                                             Address{"poll", "service"}, Address{"socket", "service"}, Address()));
    connector->addServiceProvider(
        "three", std::make_shared<BayeuxHttpServiceProvider>(Address{"poll"}, Address{"socket"}, Address{"third"}));
    struct Case
    {
        const char* method;
        const char* query;
        bool upgrade;
        const char* two;
        const char* three;
    };
    const std::vector<Case> cases{
        {"POST", "", false, "200 poll > service", "200 poll > "},
        {"POST", "jsonp=f", false, "200 poll > service", "200 poll > "},
        {"GET", "", true, "200 socket > service", "200 socket > "},
        {"GET", "jsonp=f", true, "200 socket > service", "200 socket > "},
        {"GET", "message=%5B%5D&jsonp=f", false, "400 The connection type callback-polling is not served here.",
         "200 third > "},
        {"GET", "jsonp", false, "400 The connection type callback-polling is not served here.", "200 third > "},
        {"GET", "jsonpx=1&&x=jsonp", false, "405 The method GET is not allowed here.",
         "405 The method GET is not allowed here."},
        {"HEAD", "", false, "405 The method HEAD is not allowed here.", "405 The method HEAD is not allowed here."},
        {"PUT", "jsonp=f", false, "405 The method PUT is not allowed here.", "405 The method PUT is not allowed here."},
        {"OPTIONS", "", false, "204 ", "204 "},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.method) + "?" + each.query);
        const auto ask = [&](const char* name) {
            auto made = each.upgrade ? handshake() : request(each.method, "");
            made->query = each.query;
            const auto response = send(std::move(made), Address{name, "default"});
            EXPECT_EQ(response->headers.get("Allow"),
                      response->status == 405 || response->status == 204 ? "POST, OPTIONS" : "");
            return std::to_string(response->status) + " " + response->body;
        };
        EXPECT_EQ(ask("two"), each.two);
        EXPECT_EQ(ask("three"), each.three);
    }
}

TEST_F(Transport, PostIsAnsweredWithTheReplies)
{
    for (const char* type : {"application/json", "Application/JSON; charset=UTF-8", "application/json;charset=utf-8"}) {
        const auto response = send(request("POST", "{}", {{"Content-Type", type}}), Address{"longPoll", "service"});
        EXPECT_EQ(response->status, 200u);
        EXPECT_EQ(response->body, "[{}]");
        EXPECT_EQ(response->headers.get("Content-Type"), "application/json");
        EXPECT_EQ(response->headers.get("Cache-Control"), "no-store");
    }
    const auto asked = server->asked().at(0);
    EXPECT_EQ(asked.body, "{}");
    EXPECT_EQ(asked.origin.httpSessionId, session->id());
    EXPECT_EQ(asked.origin.peerAddress, "127.0.0.9");
    EXPECT_EQ(asked.origin.webSocket, nullptr);

    for (const char* type : {"", "text/plain", "application/jsonp", "text/json, application/json"})
        EXPECT_EQ(send(request("POST", "{}", {{"Content-Type", type}}), Address{"longPoll", "service"})->status, 415u)
            << type;
    EXPECT_EQ(faultOf(std::string(kMiB, ' ')), 200u);
    EXPECT_EQ(faultOf(std::string(kMiB + kMostTooLongBytes, ' ')), 200u) << "refused message by message";
    EXPECT_EQ(faultOf(std::string(kMiB + kMostTooLongBytes + 1, ' ')), 413u);
    EXPECT_EQ(server->asked().size(), 5u);
}

TEST_F(Transport, FailedPostIsToldWithinTheProtocol)
{
    const std::string body =
        R"([{"channel":"/meta/connect","id":"7","clientId":"c"},{"channel":"/a","id":8,"data":1}])";
    const std::string replies =
        R"([{"channel":"/meta/connect","successful":false,"id":"7","error":"500::Internal error.",)"
        R"("advice":{"reconnect":"retry","interval":1000,"timeout":30000}},)"
        R"({"channel":"/a","successful":false,"id":8,"error":"500::Internal error."}])";
    const auto fail = [this](auto failure) {
        server->answer = [failure](const std::string&) { return makeFailedFuture<std::string>(failure); };
    };
    fail(std::runtime_error("disk on fire"));
    EXPECT_EQ(post(body)->body, replies);
    EXPECT_EQ(post(body)->status, 200u);
    EXPECT_EQ(faultOf("{"), 400u);
    EXPECT_EQ(faultOf("[]"), 400u);
    server->answer = [](const std::string&) { return makeReadyFuture(std::string()); };
    EXPECT_EQ(post(body)->body, replies) << "never an empty body";
    server->answer = [](const std::string&) -> Future<std::string> { throw std::runtime_error("at once"); };
    EXPECT_EQ(post(body)->body, replies);

    fail(http::HttpFault(400, "byte 1: no JSON"));
    EXPECT_EQ(faultOf(body), 400u);
    fail(ServiceFault("unavailable", "The bus is stopped."));
    EXPECT_EQ(faultOf(body), 503u);
    fail(ServiceFault("busy", "Later."));
    EXPECT_EQ(faultOf(body), 200u);
    connector->stop();
    connector->addServiceProvider("longPoll", std::make_shared<BayeuxLongPollServiceProvider>());
    EXPECT_FALSE(server->isRunning());
    EXPECT_EQ(faultOf(body), 503u) << "stopped";
    connector->removeServiceProvider("service");
    EXPECT_EQ(faultOf(body), 503u) << "gone";
}

TEST_F(Transport, HeldPostIsCancelledWhenItsClientGoes)
{
    std::mutex mutex;
    std::vector<std::shared_ptr<Promise<std::string>>> held;
    std::atomic<int> cancelled{0};
    server->answer = [&](const std::string&) {
        auto promise = std::make_shared<Promise<std::string>>();
        promise->onCancel([&cancelled] { ++cancelled; });
        std::lock_guard lock(mutex);
        held.push_back(promise);
        return promise->future();
    };
    http::PocoHttpsServer wire(http::ServerSettings(), [this](std::unique_ptr<HttpRequest> made) {
        auto context = connector->newContext();
        http::PocoHttpsServer::Exchange exchange;
        exchange.cancellation = context->cancellation();
        exchange.answer = connector->handle(std::move(made), Address{"longPoll", "service"}, std::move(context));
        return exchange;
    });
    wire.open();
    const std::string text = "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
                             "Content-Length: 2\r\n\r\n{}";
    const auto isHeld = [&](std::size_t count) {
        return eventually([&] {
            std::lock_guard lock(mutex);
            return held.size() == count;
        });
    };

    http::test::WireClient staying(wire.port());
    staying.send(text);
    ASSERT_TRUE(isHeld(1));
    http::test::WireClient aborting(wire.port());
    aborting.send(text);
    ASSERT_TRUE(isHeld(2));
    aborting.abort();
    EXPECT_TRUE(eventually([&] { return cancelled == 1; }));
    http::test::WireClient leaving(wire.port());
    leaving.send(text);
    ASSERT_TRUE(isHeld(3));
    leaving.finishSending();
    EXPECT_TRUE(eventually([&] { return cancelled == 2; }));

    EXPECT_TRUE(held.at(0)->setValue("[1]"));
    EXPECT_EQ(staying.receive().body, "[1]");
    EXPECT_EQ(cancelled, 2);
    wire.close();
}

TEST_F(Transport, SocketsMessagesAreHandledInOrder)
{
    std::vector<std::shared_ptr<Promise<std::string>>> held;
    server->answer = [&held](const std::string& body) {
        if (body == "event")
            return makeReadyFuture(std::string());
        if (body != "hold")
            return makeReadyFuture("[" + body + "]");
        held.push_back(std::make_shared<Promise<std::string>>());
        return held.back()->future();
    };
    const auto endpoint = open();
    for (const char* text : {"1", "event", "2", "hold", "3", "hold"})
        endpoint->received(text, false);
    EXPECT_EQ(connection->sent, (std::vector<std::string>{"[1]", "[2]"}));
    EXPECT_EQ(server->asked().size(), 4u);
    held.at(0)->setValue("[late]");
    EXPECT_EQ(connection->sent, (std::vector<std::string>{"[1]", "[2]", "[late]", "[3]"}));

    const auto origin = server->asked().at(0).origin;
    EXPECT_EQ(origin.httpSessionId, session->id());
    EXPECT_EQ(origin.peerAddress, "127.0.0.9");
    ASSERT_NE(origin.webSocket, nullptr);
    EXPECT_TRUE(origin.webSocket->send(std::make_shared<const std::string>("[event]"), http::SendWhen::soon));
    EXPECT_EQ(connection->sent.back(), "[event]");
    EXPECT_EQ(origin.webSocket->queuedBytes(), 5u);

    // What came before the end is still handled, and the end comes last.
    endpoint->received("goodbye", false);
    endpoint->closed(1006, "");
    EXPECT_TRUE(held.at(1)->isCancelled());
    EXPECT_EQ(server->asked().back().body, "goodbye");
    EXPECT_EQ(server->closed(), std::vector{origin.webSocket});
    origin.webSocket->close();
    EXPECT_EQ(connection->codes.back(), 1001);
}

TEST_F(Transport, SocketsFailures)
{
    const auto fail = [this](auto failure) {
        server->answer = [failure](const std::string&) { return makeFailedFuture<std::string>(failure); };
    };
    const auto closedWith = [this](const std::string& text, bool binary = false) {
        const auto endpoint = open();
        connection->codes.clear();
        endpoint->received(text, binary);
        endpoint->received(text, binary);
        endpoint->closed(1006, "");
        EXPECT_LE(connection->codes.size(), 1u) << "closed once";
        return connection->codes.empty() ? 0 : connection->codes.front();
    };
    EXPECT_EQ(closedWith("[]", true), 1003);
    EXPECT_TRUE(server->asked().empty());
    fail(http::HttpFault(400, "byte 1: no JSON"));
    EXPECT_EQ(closedWith("x"), 1007);
    EXPECT_EQ(server->asked().size(), 1u) << "nothing more is taken";
    fail(http::HttpFault(413, "too large"));
    EXPECT_EQ(closedWith("x"), 1009);
    fail(ServiceFault("unavailable", "The bus is stopped."));
    EXPECT_EQ(closedWith("x"), 1013);
    EXPECT_TRUE(connection->sent.empty());
    fail(std::runtime_error("disk on fire"));
    EXPECT_EQ(closedWith(R"([{"channel":"/a","id":"1"}])"), 0);
    EXPECT_EQ(connection->sent.at(0),
              R"([{"channel":"/a","successful":false,"id":"1","error":"500::Internal error."}])");

    // Each of both bounds.
    for (const std::size_t size : {std::size_t{1}, kMiB}) {
        Promise<std::string> held;
        bool first = true;
        server->answer = [&](const std::string&) {
            return std::exchange(first, false) ? held.future() : makeReadyFuture(std::string("[]"));
        };
        connection->codes.clear();
        const auto endpoint = open();
        const std::size_t fits = size == 1 ? 1'000 : 4;
        for (std::size_t i = 0; i < fits + 1; ++i) // one of them is at work
            endpoint->received(std::string(size, 'x'), false);
        EXPECT_TRUE(connection->codes.empty());
        endpoint->received(std::string(size, 'x'), false);
        EXPECT_EQ(connection->codes, std::vector<std::uint16_t>{1008});
        endpoint->closed(1006, "");
        EXPECT_TRUE(held.isCancelled());
    }
    const auto endpoint = open();
    connector.get()->stop();
    connection->codes.clear();
    endpoint->received("x", false);
    EXPECT_EQ(connection->codes, std::vector<std::uint16_t>{1013});
}

TEST_F(Transport, ServiceRunsItsServer)
{
    EXPECT_TRUE(server->isRunning());
    connector->stop();
    EXPECT_FALSE(server->isRunning());
    connector->start();
    EXPECT_TRUE(server->isRunning());
    EXPECT_THROW(BayeuxServiceProviderImpl(nullptr), std::invalid_argument);
}

} // namespace
} // namespace connector::bayeux
