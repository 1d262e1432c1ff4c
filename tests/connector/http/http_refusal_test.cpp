#include <csignal>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include "connector/core/Connector.h"
#include "connector/http/PocoHttpsServer.h"
#include "connector/http/WebSocket.h"
#include "connector/http/http_client.h"

namespace connector::http {
namespace {

using test::eventually;
using test::WireClient;
using Answer = std::unique_ptr<Message>;
using Request = std::unique_ptr<HttpRequest>;
using Serve = std::function<MessageFuture(Request)>;

constexpr std::size_t kLimit = 100'000;
/// What must never be answered when it comes as a body.
const std::string kSmuggled = "GET /smuggled HTTP/1.1\r\nHost: localhost\r\n\r\n";

std::shared_ptr<PocoHttpsServer> serverOf(Serve serve, ServerSettings settings = {})
{
    auto server = std::make_shared<PocoHttpsServer>(settings, [serve](Request request) {
        PocoHttpsServer::Exchange exchange;
        exchange.cancellation = std::make_shared<CancellationToken>();
        exchange.answer = serve(std::move(request));
        return exchange;
    });
    server->open();
    return server;
}

MessageFuture answer(unsigned status, const std::string& text = "x")
{
    return makeReadyFuture<Answer>(std::make_unique<HttpResponse>(status, "text/plain", text));
}

/// Lets the client in, and takes bodies of up to `most` bytes.
Serve takeUpTo(std::size_t most)
{
    return [most](Request request) {
        request->admit();
        return readWhole(std::move(request), most).then([](Future<Request> whole) {
            return answer(200, std::to_string(whole.get()->body.size()));
        });
    };
}

std::string head(const std::string& fields, const std::string& path = "/")
{
    return "POST " + path + " HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n";
}

/// Until the server has read everything that was sent to its port.
bool hasReadAll(std::uint16_t port)
{
    return eventually([port] {
        std::ifstream table("/proc/net/tcp");
        std::string line;
        std::getline(table, line);
        while (std::getline(table, line)) {
            unsigned from = 0;
            unsigned to = 0;
            unsigned sending = 0;
            unsigned waiting = 0;
            if (std::sscanf(line.c_str(), " %*u: %*x:%x %*x:%x %*x %x:%x", &from, &to, &sending, &waiting) == 4 &&
                ((from == port && waiting > 0) || (to == port && sending > 0)))
                return false;
        }
        return true;
    });
}

/// The largest file that this process may write: a disk that is full from there on.
class FullDisk
{
public:
    explicit FullDisk(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN))
    {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit small{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &small);
    }
    ~FullDisk()
    {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }

private:
    void (*handler_)(int);
    rlimit before_{};
};

struct RefusedBody
{
    const char* what;
    unsigned status;
    bool chunked;
    void (*set)(ServerSettings&) = [](ServerSettings&) {};
    bool fullDisk = false;
};

class BodyThatIsRefused : public testing::TestWithParam<RefusedBody>
{};

/// The end of the body, with which it is refused, comes in one piece and looks like a request.
TEST_P(BodyThatIsRefused, neverBecomesARequest)
{
    const RefusedBody& body = GetParam();
    const std::optional<FullDisk> disk = body.fullDisk ? std::make_optional<FullDisk>(kLimit) : std::nullopt;
    ServerSettings settings;
    settings.memoryBodyBytes = 1'000;
    body.set(settings);
    const auto server = serverOf(takeUpTo(body.status == 413 ? kLimit : 10 * kLimit), settings);
    const std::size_t size = kLimit + kSmuggled.size();
    std::ostringstream begin;
    if (body.chunked)
        begin << head("Transfer-Encoding: chunked\r\n") << std::hex << size << "\r\n";
    else
        begin << head("Content-Length: " + std::to_string(size) + "\r\n");

    WireClient client(server->port());
    client.sendWhatGoes(begin.str() + std::string(kLimit, 'x'));
    ASSERT_TRUE(hasReadAll(server->port()));
    client.sendWhatGoes(kSmuggled + (body.chunked ? "\r\n0\r\n\r\n" : "") + kSmuggled);
    const auto response = client.receive();
    EXPECT_EQ(response.status, body.status);
    EXPECT_EQ(response.header("Connection"), "close");
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(server->counters().requests, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, BodyThatIsRefused,
    testing::Values(RefusedBody{"tooLargeInChunks", 413, true}, RefusedBody{"tooLargeAnnounced", 413, false},
                    RefusedBody{"fullDiskInChunks", 507, true, [](ServerSettings&) {}, true},
                    RefusedBody{"fullDiskAnnounced", 507, false, [](ServerSettings&) {}, true},
                    RefusedBody{"tooManyInChunks", 503, true,
                                [](ServerSettings& settings) { settings.maxSpooledBytes = kLimit; }},
                    RefusedBody{"tooManyAnnounced", 503, false,
                                [](ServerSettings& settings) { settings.maxSpooledBytes = kLimit; }}),
    [](const auto& parameter) { return parameter.param.what; });

class Unused final : public WebSocketEndpoint
{
public:
    void opened(std::shared_ptr<WebSocketConnection>) override { ADD_FAILURE() << "a WebSocket began within a body"; }
    void received(std::string, bool) override {}
    void closed(std::uint16_t, const std::string&) override {}
};

/// An answer that comes without the body being wanted.
TEST(UnreadBody, neverBecomesARequest)
{
    std::mutex mutex;
    std::vector<Promise<Answer>> held;
    std::vector<std::thread> threads;
    const auto server = serverOf([&](Request request) -> MessageFuture {
        if (request->path == "/stranger")
            return answer(401);
        request->admit();
        if (request->path == "/throws")
            throw std::runtime_error("no");
        if (request->path == "/socket")
            return makeReadyFuture<Answer>(acceptWebSocket(*request, nullptr));
        if (request->path == "/upgrade") {
            auto response = std::make_unique<HttpResponse>(101);
            response->upgrade =
                std::make_shared<const WebSocketUpgrade>(WebSocketUpgrade{std::make_shared<Unused>(), {}});
            return makeReadyFuture<Answer>(std::move(response));
        }
        if (request->path == "/cancelled") {
            auto whole = readWhole(std::move(request), kLimit);
            whole.cancel();
            return answer(200);
        }
        if (request->path == "/elsewhere") {
            Promise<Answer> promise;
            auto future = promise.future();
            std::lock_guard lock(mutex);
            threads.emplace_back([promise = std::move(promise)]() mutable {
                promise.setValue(std::make_unique<HttpResponse>(200, "text/plain", "x"));
            });
            return future;
        }
        return answer(static_cast<unsigned>(std::stoul(request->path.substr(1))));
    });
    for (const std::string path : {"/stranger", "/200", "/204", "/303", "/403", "/404", "/415", "/500", "/throws",
                                   "/socket", "/upgrade", "/cancelled", "/elsewhere"}) {
        for (const std::string expect : {"", "Expect: 100-continue\r\n"}) {
            for (const bool chunked : {false, true}) {
                const auto before = server->counters().requests;
                WireClient client(server->port());
                std::ostringstream length;
                if (chunked)
                    length << "Transfer-Encoding: chunked\r\n";
                else
                    length << "Content-Length: " << kSmuggled.size() << "\r\n";
                client.send(head("Connection: Upgrade\r\nUpgrade: websocket\r\n" + expect + length.str(), path));
                const std::string answered = client.receiveHead();
                EXPECT_NE(answered.find("Connection: close\r\n"), std::string::npos) << path << "\n" << answered;
                client.sendWhatGoes(kSmuggled + kSmuggled);
                EXPECT_EQ(client.rest().find("HTTP/1.1 "), std::string::npos) << path;
                EXPECT_EQ(server->counters().requests, before + 1) << path;
            }
        }
    }
    for (auto& thread : threads)
        thread.join();
}

/// A body that was read to its end is no reason to end anything.
TEST(UnreadBody, thatWasReadLeavesTheConnectionOpen)
{
    const auto server = serverOf(takeUpTo(10 * kLimit));
    WireClient client(server->port());
    for (const std::size_t size : {0u, 5u, 4'000u, 70'000u, 400'000u}) {
        const std::string body(size, 'x');
        EXPECT_EQ(client.ask(head("Content-Length: " + std::to_string(size) + "\r\n") + body).body,
                  std::to_string(size));
        client.send(head("Content-Length: " + std::to_string(size) + "\r\n"));
        ASSERT_TRUE(hasReadAll(server->port()));
        client.send(body);
        EXPECT_EQ(client.receive().body, std::to_string(size)) << "apart from its head";
    }
}

TEST(Stranger, isLeftAfterARefusalAndWhoWasLetInIsNot)
{
    const auto server = serverOf([](Request request) {
        if (request->headers.find("Authorization"))
            request->admit();
        return answer(request->path == "/200" ? 200 : 404);
    });
    const auto get = [](const std::string& path, const std::string& fields = "") {
        return "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n";
    };
    WireClient stranger(server->port());
    EXPECT_EQ(stranger.ask(get("/200")).header("Connection"), "") << "nothing was refused";
    EXPECT_EQ(stranger.ask(get("/404")).header("Connection"), "close");
    EXPECT_TRUE(stranger.isClosed());
    WireClient known(server->port());
    EXPECT_EQ(known.ask(get("/404", "Authorization: yes\r\n")).header("Connection"), "");
    EXPECT_EQ(known.ask(get("/404")).header("Connection"), "");
}

TEST(Stranger, leavesWhenThereAreTooManyConnections)
{
    ServerSettings settings;
    settings.maxConnections = 20;
    const auto server = serverOf(takeUpTo(kLimit), settings);
    WireClient known(server->port());
    EXPECT_EQ(known.ask(head("Content-Length: 0\r\n")).status, 200u);
    std::vector<WireClient> strangers;
    for (int i = 0; i < 200; ++i) {
        strangers.emplace_back(server->port());
        if (i % 2 == 0)
            strangers.back().sendWhatGoes("GET / HT");
    }
    EXPECT_TRUE(eventually([&] { return server->counters().turnedAway >= 181; }));
    EXPECT_EQ(WireClient(server->port()).ask(head("Content-Length: 0\r\n")).status, 200u);
    EXPECT_EQ(known.ask(head("Content-Length: 0\r\n")).status, 200u);
    EXPECT_LE(server->counters().connections, 21u);
}

TEST(Stranger, holdsLittleOfAHead)
{
    ServerSettings settings;
    settings.parameters->setMaxThreads(1);
    const auto server = serverOf(takeUpTo(kLimit), settings);
    const std::string unfinished = head("X-Long: " + std::string(30'000, 'x')).substr(0, 30'000);
    WireClient slow(server->port());
    slow.send(head("X-Short: 1\r\n").substr(0, 40));
    std::vector<WireClient> strangers;
    for (int i = 0; i < 700; ++i) {
        strangers.emplace_back(server->port());
        strangers.back().sendWhatGoes(unfinished);
    }
    EXPECT_TRUE(eventually([&] { return server->counters().connections < 400; }));
    EXPECT_EQ(WireClient(server->port()).ask(head("Content-Length: 0\r\n")).status, 200u);
    slow.send(head("X-Short: 1\r\nContent-Length: 0\r\n").substr(40));
    EXPECT_EQ(slow.receive().status, 200u) << "who holds little is left alone";
}

TEST(Stranger, cannotFillTheRoomForBodies)
{
    ServerSettings settings;
    settings.maxHeldBodyBytes = 2u << 20;
    const auto server = serverOf(
        [](Request request) {
            return request->headers.find("Authorization") ? takeUpTo(kLimit)(std::move(request)) : answer(401);
        },
        settings);
    std::vector<WireClient> strangers;
    for (int i = 0; i < 300; ++i) {
        strangers.emplace_back(server->port());
        strangers.back().sendWhatGoes(head("Transfer-Encoding: chunked\r\n") + "100000\r\n" + std::string(20'000, 'x'));
    }
    EXPECT_EQ(strangers.front().receive().status, 401u);
    EXPECT_EQ(WireClient(server->port())
                  .ask(head("Authorization: yes\r\nContent-Length: 90000\r\n") + std::string(90'000, 'x'))
                  .body,
              "90000");
}

} // namespace
} // namespace connector::http
