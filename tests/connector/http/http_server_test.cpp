#include <filesystem>
#include <latch>
#include <thread>

#include <gtest/gtest.h>

#include "connector/core/Connector.h"
#include "connector/http/PocoHttpsServer.h"
#include "connector/http/http_client.h"

namespace connector::http {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::WireClient;
using test::WireResponse;
using MessagePromise = Promise<std::unique_ptr<Message>>;

std::string get(const std::string& path, const std::string& fields = "")
{
    return "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n";
}

std::string post(const std::string& path, const std::string& body, const std::string& fields = "")
{
    return "POST " + path + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           fields + "\r\n" + body;
}

ServerSettings tinyTimeouts()
{
    ServerSettings settings;
    settings.headTimeout = 60ms;
    settings.bodyTimeout = 60ms;
    settings.lingerTimeout = 60ms;
    settings.parameters->setKeepAliveTimeout(Poco::Timespan(0, 60'000));
    return settings;
}

/// A server whose answers depend on the path: /echo, /hold (until `release`), /throw, /missing, /stopped, /odd, /empty.
class Server
{
public:
    explicit Server(ServerSettings settings = {})
        : server_(std::make_shared<PocoHttpsServer>(
              std::move(settings), [this](std::unique_ptr<HttpRequest> request) { return serve(std::move(request)); }))
    {
        server_->open();
    }
    ~Server() { server_->close(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    PocoHttpsServer& operator*() { return *server_; }
    PocoHttpsServer* operator->() { return server_.get(); }
    WireClient client() { return WireClient(server_->port()); }

    bool awaitHeld(std::size_t count)
    {
        return eventually([&] {
            std::lock_guard lock(mutex_);
            return held_.size() == count;
        });
    }

    std::vector<std::shared_ptr<CancellationToken>> tokens()
    {
        std::lock_guard lock(mutex_);
        return tokens_;
    }

    void release(const std::string& text)
    {
        std::vector<MessagePromise> held;
        {
            std::lock_guard lock(mutex_);
            held.swap(held_);
        }
        for (auto& promise : held)
            promise.setValue(std::make_unique<HttpResponse>(200, "text/plain", text));
    }

private:
    PocoHttpsServer::Exchange serve(std::unique_ptr<HttpRequest> request)
    {
        PocoHttpsServer::Exchange exchange;
        request->admit();
        if (request->path == "/hold") {
            exchange.cancellation = std::make_shared<CancellationToken>();
            exchange.answer =
                readWhole(std::move(request), 64u << 20)
                    .then([this, token = exchange.cancellation](Future<std::unique_ptr<HttpRequest>> body) {
                        body.get();
                        return hold(token);
                    });
            return exchange;
        }
        if (request->path == "/throw")
            throw std::runtime_error("secret cause");
        if (request->path == "/missing") {
            exchange.answer = makeFailedFuture<std::unique_ptr<Message>>(UnknownServiceProvider("connector/x"));
            return exchange;
        }
        if (request->path == "/stopped") {
            exchange.answer =
                makeFailedFuture<std::unique_ptr<Message>>(std::runtime_error("Service exists but is not running."));
            return exchange;
        }
        if (request->path == "/odd") {
            exchange.answer = makeReadyFuture(std::unique_ptr<Message>());
            return exchange;
        }
        exchange.answer = readWhole(std::move(request), 64u << 20).then(echo);
        return exchange;
    }

    MessageFuture hold(const std::shared_ptr<CancellationToken>& token)
    {
        std::lock_guard lock(mutex_);
        held_.emplace_back();
        tokens_.push_back(token);
        return held_.back().future();
    }

    static std::unique_ptr<Message> echo(Future<std::unique_ptr<HttpRequest>> whole)
    {
        const auto request = whole.get();
        auto response = std::make_unique<HttpResponse>(request->path == "/empty" ? 204 : 200, "text/plain",
                                                       request->method + " " + request->body);
        if (request->path == "/empty")
            response->body.clear();
        // Of the engine, and not to be had twice.
        response->headers.add("Content-Length", "1");
        response->headers.add("Connection", "close");
        response->headers.add("X-From", request->peerAddress + " " + std::to_string(request->localPort));
        return response;
    }

    std::mutex mutex_;
    std::vector<MessagePromise> held_;
    std::vector<std::shared_ptr<CancellationToken>> tokens_;
    std::shared_ptr<PocoHttpsServer> server_;
};

std::size_t entriesOf(const char* folder)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

TEST(HttpServer, answersOneAfterTheOtherOnOneConnection)
{
    Server server;
    WireClient client = server.client();
    for (const std::string text : {"one", "two", ""}) {
        const WireResponse response = client.ask(post("/echo", text));
        EXPECT_EQ(response.head.substr(0, 17), "HTTP/1.1 200 OK\r\n");
        EXPECT_EQ(response.body, "POST " + text);
        EXPECT_EQ(response.header("Content-Length"), std::to_string(5 + text.size()));
        EXPECT_EQ(response.header("Connection"), "");
        EXPECT_EQ(response.header("X-From"), "127.0.0.1 " + std::to_string(server->port()));
        EXPECT_EQ(response.header("Date").size(), 29u);
    }
    EXPECT_EQ(server->counters().accepted, 1u);
    EXPECT_EQ(server->counters().requests, 3u);
    EXPECT_EQ(server->counters().requestsInFlight, 0u);
}

TEST(HttpServer, answersPipelinedRequestsInOrder)
{
    Server server;
    WireClient client = server.client();
    std::string wire = get("/hold");
    for (int i = 0; i < 500; ++i)
        wire += post("/echo", std::to_string(i));
    std::thread sender([&] { client.send(wire); });
    ASSERT_TRUE(server.awaitHeld(1));
    EXPECT_EQ(server->counters().requests, 1u);
    server.release("first");
    EXPECT_EQ(client.receive().body, "first");
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(client.receive().body, "POST " + std::to_string(i));
    sender.join();
}

TEST(HttpServer, carriesTenMegabytesBothWays)
{
    Server server;
    std::string body(10'000'000, '\0');
    for (std::size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<char>(i * 7 + i / 1'000);
    WireClient client = server.client();
    EXPECT_TRUE(client.ask(post("/echo", body)).body == "POST " + body);

    std::string chunked = "POST /echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (std::size_t at = 0; at < body.size(); at += 100'000)
        chunked += "186a0;n\r\n" + body.substr(at, 100'000) + "\r\n";
    EXPECT_TRUE(client.ask(chunked + "0\r\nT: 1\r\n\r\n").body == "POST " + body);
    EXPECT_EQ(client.ask(get("/echo")).body, "GET ");
}

TEST(HttpServer, leavesTheBodyOutWhereThereIsNone)
{
    Server server;
    WireClient client = server.client();
    client.send("HEAD /echo HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(client.receive(true).header("Content-Length"), "5");
    const WireResponse empty = client.ask(get("/empty"));
    EXPECT_EQ(empty.status, 204u);
    EXPECT_EQ(empty.header("Content-Length"), "");
    const WireResponse options = client.ask("OPTIONS * HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(options.status, 204u);
    EXPECT_NE(options.header("Allow"), "");
    EXPECT_EQ(client.ask(get("/echo")).status, 200u);
}

TEST(HttpServer, speaksHttp10)
{
    Server server;
    WireClient client = server.client();
    EXPECT_EQ(client.ask("GET /echo HTTP/1.0\r\nConnection: keep-alive\r\n\r\n").header("Connection"), "keep-alive");
    EXPECT_EQ(client.ask("GET /echo HTTP/1.0\r\n\r\n").header("Connection"), "close");
    EXPECT_TRUE(client.isClosed());
}

TEST(HttpServer, asksForABodyThatIsHeldBack)
{
    ServerSettings settings;
    settings.maxBodyBytes = 10;
    Server server(settings);
    const auto head = [](int length) {
        return "POST /echo HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: " + std::to_string(length) +
               "\r\n\r\n";
    };
    WireClient client = server.client();
    client.send(head(3));
    EXPECT_EQ(client.receiveHead(), "HTTP/1.1 100 Continue\r\n");
    EXPECT_EQ(client.ask("abc").body, "POST abc");
    EXPECT_EQ(client.ask(head(3) + "abc").body, "POST abc") << "a body that is there needs no asking";
    EXPECT_EQ(client.ask(head(11)).status, 413u);
    EXPECT_TRUE(client.isClosed());
}

TEST(HttpServer, refusesAndClosesWithTheReason)
{
    ServerSettings settings;
    settings.maxBodyBytes = 1'000;
    Server server(settings);
    const std::vector<std::pair<unsigned, std::string>> cases{
        {400, "nonsense\r\n\r\n"},
        {400, "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n"},
        {413, "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\nfff\r\n" + std::string(100'000, 'x')},
        {413, "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1000000\r\n\r\n" + std::string(1'000'000, 'x')},
        {414, "GET /" + std::string(20'000, 'a') + " HTTP/1.1\r\n"},
        {431, "GET / HTTP/1.1\r\nHost: a\r\n" + std::string(100'000, 'a')},
        {505, "GET / HTTP/3.0\r\n\r\n"},
    };
    for (const auto& [status, wire] : cases) {
        WireClient client = server.client();
        client.sendWhatGoes(wire);
        const WireResponse response = client.receive();
        EXPECT_EQ(response.status, status) << wire.substr(0, 80);
        EXPECT_EQ(response.header("Connection"), "close");
        EXPECT_FALSE(response.body.empty());
        EXPECT_TRUE(client.isClosed());
    }
    EXPECT_EQ(server->counters().requests, 0u);
    EXPECT_EQ(server->counters().refusedRequests, cases.size());
}

TEST(HttpServer, keepsCausesOfFailuresToItself)
{
    Server server;
    WireClient client = server.client();
    const std::vector<std::tuple<std::string, unsigned, std::string>> cases{
        {"/throw", 500, "Internal error."},
        {"/odd", 500, "Internal error."},
        {"/missing", 503, "Service unavailable."},
        {"/stopped", 503, "Service unavailable."},
    };
    for (const auto& [path, status, text] : cases) {
        const WireResponse response = client.ask(get(path));
        EXPECT_EQ(response.status, status);
        EXPECT_EQ(response.body, text);
    }
    EXPECT_EQ(client.ask(get("/throw", "Accept: application/json\r\n")).body, R"({"error":"Internal error."})");
    EXPECT_EQ(server->counters().failedRequests, 3u);
}

TEST(HttpServer, givesSlowClientsUp)
{
    Server server(tinyTimeouts());
    WireClient silent = server.client();
    EXPECT_TRUE(silent.isClosed());

    WireClient slowHead = server.client();
    slowHead.send("GET / HTTP/1.1\r\nHo");
    EXPECT_EQ(slowHead.receive().status, 408u);
    EXPECT_TRUE(slowHead.isClosed());

    WireClient slowBody = server.client();
    slowBody.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\n\r\nab");
    EXPECT_EQ(slowBody.receive().status, 408u);

    WireClient idle = server.client();
    EXPECT_EQ(idle.ask(get("/echo")).status, 200u);
    EXPECT_TRUE(idle.isClosed());
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
}

TEST(HttpServer, givesTricklingBodiesUp)
{
    ServerSettings settings;
    settings.bodyRateGrace = 40ms;
    Server server(settings);
    WireClient client = server.client();
    client.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 100000\r\n\r\nx");
    EXPECT_EQ(client.receive().status, 408u);
}

TEST(HttpServer, givesUpWhoDoesNotReadTheAnswer)
{
    ServerSettings settings;
    settings.parameters->setTimeout(Poco::Timespan(0, 60'000));
    Server server(settings);
    WireClient client = server.client();
    // More than the buffers of both sides take.
    client.sendWhatGoes(post("/echo", std::string(30'000'000, 'x')));
    EXPECT_TRUE(eventually([&] { return server->counters().requests == 1; }));
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
}

TEST(HttpServer, turnsConnectionsBeyondTheLimitAway)
{
    ServerSettings settings;
    settings.maxConnections = 3;
    Server server(settings);
    std::vector<WireClient> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(server.client());
        EXPECT_EQ(clients.back().ask(get("/echo")).status, 200u);
    }
    {
        WireClient fourth = server.client();
        fourth.sendWhatGoes(get("/echo"));
        EXPECT_EQ(fourth.receive().status, 503u);
        EXPECT_TRUE(fourth.isClosed());
    }
    clients.pop_back();
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 2; }));
    EXPECT_EQ(server.client().ask(get("/echo")).status, 200u);
    EXPECT_EQ(server->counters().turnedAway, 1u);
}

TEST(HttpServer, boundsTheBodiesOfAllRequestsTogether)
{
    ServerSettings settings;
    settings.maxHeldBodyBytes = 250'000;
    Server server(settings);
    const std::string body(100'000, 'x');
    const std::string holding = post("/hold", body);
    WireClient first = server.client();
    WireClient second = server.client();
    first.send(holding);
    second.send(holding);
    ASSERT_TRUE(server.awaitHeld(2));
    WireClient third = server.client();
    third.sendWhatGoes(post("/echo", body));
    EXPECT_EQ(third.receive().status, 503u);
    server.release("x");
    EXPECT_EQ(first.receive().status, 200u);
    EXPECT_EQ(second.receive().status, 200u);
    EXPECT_EQ(server.client().ask(post("/echo", body)).status, 200u);
    EXPECT_EQ(first.ask(post("/echo", body)).status, 200u);
}

TEST(HttpServer, tellsWhoWorksForAClientThatWent)
{
    Server server;
    WireClient closing = server.client();
    closing.send(get("/hold"));
    ASSERT_TRUE(server.awaitHeld(1));
    closing.finishSending();
    EXPECT_TRUE(eventually([&] { return server.tokens()[0]->isCancelled(); }));
    server.release("late");
    EXPECT_EQ(closing.receive().body, "late") << "it had only finished sending";

    WireClient resetting = server.client();
    resetting.send(get("/hold"));
    ASSERT_TRUE(server.awaitHeld(1));
    resetting.abort();
    EXPECT_TRUE(eventually([&] { return server.tokens()[1]->isCancelled(); }));
    EXPECT_TRUE(eventually([&] { return server->counters().requestsInFlight == 0; }));

    WireClient staying = server.client();
    staying.send(get("/hold"));
    ASSERT_TRUE(server.awaitHeld(2));
    server.release("there");
    EXPECT_EQ(staying.receive().body, "there");
    EXPECT_FALSE(server.tokens()[2]->isCancelled());
}

TEST(HttpServer, closesWhileRequestsAreAtWork)
{
    Server server;
    std::vector<WireClient> held;
    for (int i = 0; i < 5; ++i) {
        held.push_back(server.client());
        held.back().send(get("/hold"));
    }
    WireClient idle = server.client();
    EXPECT_EQ(idle.ask(get("/echo")).status, 200u);
    WireClient begun = server.client();
    begun.send("POST / HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 9\r\n\r\n");
    begun.receiveHead();
    ASSERT_TRUE(server.awaitHeld(5));

    const auto port = server->port();
    const auto before = std::chrono::steady_clock::now();
    server->close();
    server->close();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
    for (auto& client : held) {
        const WireResponse response = client.receive();
        EXPECT_EQ(response.status, 503u);
        EXPECT_EQ(response.body, "The connector is stopping.");
        EXPECT_EQ(response.header("Connection"), "close");
        EXPECT_TRUE(client.isClosed());
    }
    EXPECT_EQ(begun.receive().status, 503u);
    EXPECT_TRUE(idle.isClosed());
    for (const auto& token : server.tokens())
        EXPECT_TRUE(token->isCancelled());
    server.release("too late");
    EXPECT_THROW(WireClient{port}, std::runtime_error);
    EXPECT_EQ(server->port(), 0u);

    server->open();
    EXPECT_EQ(server.client().ask(get("/echo")).status, 200u);
}

TEST(HttpServer, closesOnItsOwnThread)
{
    std::shared_ptr<PocoHttpsServer> server;
    std::latch closed(1);
    server = std::make_shared<PocoHttpsServer>(ServerSettings(), [&](std::unique_ptr<HttpRequest>) {
        server->close();
        closed.count_down();
        return PocoHttpsServer::Exchange{makeReadyFuture(std::unique_ptr<Message>(new HttpResponse(204))), nullptr};
    });
    server->open();
    WireClient client(server->port());
    client.send(get("/"));
    closed.wait();
    EXPECT_EQ(client.receive().status, 204u);
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(server->port(), 0u);
}

TEST(HttpServer, namesAPortThatIsTaken)
{
    Server first;
    ServerSettings settings;
    settings.port = first->port();
    const auto second = std::make_shared<PocoHttpsServer>(settings, [](auto) { return PocoHttpsServer::Exchange(); });
    try {
        second->open();
        ADD_FAILURE() << "opened a port that was taken";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(),
                  "Cannot listen on 127.0.0.1:" + std::to_string(settings.port) + ": Address already in use");
    }
}

TEST(HttpServer, staysOpenWhenTheLibrariesArePreparedAgain)
{
    Server server;
    for (int time = 0; time < 2; ++time)
        PocoHttpsServer::initializeConnectorSSL();
    EXPECT_EQ(server.client().ask(get("/echo")).status, 200u);
}

TEST(HttpServer, keepsNoThreadAndNoDescriptor)
{
    const auto cycle = [] {
        Server server;
        WireClient answered = server.client();
        EXPECT_EQ(answered.ask(get("/echo")).status, 200u);
        WireClient held = server.client();
        held.send(get("/hold"));
        EXPECT_TRUE(server.awaitHeld(1));
        server->close();
        EXPECT_EQ(held.receive().status, 503u);
    };
    cycle();
    const auto threads = entriesOf("/proc/self/task");
    const auto descriptors = entriesOf("/proc/self/fd");
    for (int i = 0; i < 200; ++i)
        cycle();
    EXPECT_TRUE(eventually([&] { return entriesOf("/proc/self/task") == threads; }));
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
}

TEST(HttpServer, servesBesideManyIdleConnectionsAndClosesThemAtOnce)
{
    ServerSettings settings;
    Server server(settings);
    std::vector<WireClient> idle;
    for (int i = 0; i < 400; ++i)
        idle.push_back(server.client());
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 400; }));
    EXPECT_EQ(server.client().ask(get("/echo")).status, 200u);
    const auto before = std::chrono::steady_clock::now();
    server->close();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
}

TEST(HttpServer, takesRequestsOfManyClientsAtATime)
{
    Server server;
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] {
            WireClient client = server.client();
            for (int k = 0; k < 200; ++k) {
                const std::string text = std::to_string(i * 1'000 + k);
                if (client.ask(post("/echo", text)).body == "POST " + text)
                    ++right;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(right, 8 * 200);
}

TEST(HttpServer, takesAnswersFromOtherThreadsWhileClientsComeAndGo)
{
    Server server;
    std::atomic<bool> over{false};
    std::thread releaser([&] {
        while (!over)
            server.release("x");
    });
    for (int i = 0; i < 200; ++i) {
        WireClient client = server.client();
        client.send(get("/hold"));
        if (i % 3 == 0)
            client.abort();
        if (i % 3 == 1) {
            EXPECT_EQ(client.receive().body, "x");
        }
    }
    server->close();
    over = true;
    releaser.join();
}

} // namespace
} // namespace connector::http
