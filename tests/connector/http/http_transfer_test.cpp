#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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
using Answer = std::unique_ptr<Message>;
using Serve = std::function<MessageFuture(std::unique_ptr<HttpRequest>)>;

constexpr std::uint64_t kMiB = 1u << 20;

/// A server with one handler.
std::shared_ptr<PocoHttpsServer> serverOf(Serve serve, ServerSettings settings = {})
{
    auto server = std::make_shared<PocoHttpsServer>(settings, [serve](std::unique_ptr<HttpRequest> request) {
        PocoHttpsServer::Exchange exchange;
        exchange.cancellation = std::make_shared<CancellationToken>();
        request->admit();
        exchange.answer = serve(std::move(request));
        return exchange;
    });
    server->open();
    return server;
}

std::string request(const std::string& method, const std::string& fields = "", const std::string& body = "")
{
    return method + " / HTTP/1.1\r\nHost: localhost\r\n" + fields + "\r\n" + body;
}

std::shared_ptr<const common::FileDescriptor> fileOf(const std::string& content)
{
    auto file = std::make_shared<common::FileDescriptor>(::open("/var/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    EXPECT_EQ(::write(file->number(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
    return file;
}

/// Text in which every position can be told from its neighbours.
std::string pattern(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
    return text;
}

std::size_t residentBytes()
{
    std::ifstream file("/proc/self/statm");
    std::size_t pages = 0;
    file >> pages >> pages;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::unique_ptr<HttpResponse> text(unsigned status, const std::string& content)
{
    return std::make_unique<HttpResponse>(status, "text/plain", content);
}

TEST(ResponseParts, arriveInOrderAndTheConnectionGoesOn)
{
    const std::string content = pattern(20 * kMiB);
    const auto file = fileOf(content);
    const auto server = serverOf([file](auto) {
        auto response = std::make_unique<HttpResponse>(200);
        response->parts.emplace_back("<");
        response->parts.emplace_back(file, 0, 20 * kMiB);
        response->parts.emplace_back("|");
        response->parts.emplace_back(file, 5, 0);
        response->parts.emplace_back(file, 19 * kMiB, 10);
        response->parts.emplace_back(">");
        return makeReadyFuture<Answer>(std::move(response));
    });
    const std::string expected = "<" + content + "|" + content.substr(19 * kMiB, 10) + ">";
    WireClient client(server->port());
    for (int round = 0; round < 3; ++round) {
        const auto response = client.ask(request("GET"));
        EXPECT_EQ(response.header("Content-Length"), std::to_string(expected.size()));
        EXPECT_TRUE(response.body == expected);
        client.send(request("HEAD"));
        const auto head = client.receive(true);
        EXPECT_EQ(head.header("Content-Length"), std::to_string(expected.size()));
        EXPECT_EQ(head.body, "");
    }
}

TEST(ResponseParts, ofAFileThatShrankEndTheConnection)
{
    const auto file = fileOf(pattern(1'000));
    const auto server = serverOf([file](auto) {
        auto response = std::make_unique<HttpResponse>(200);
        response->parts.emplace_back(file, 0, 2'000);
        return makeReadyFuture<Answer>(std::move(response));
    });
    WireClient client(server->port());
    client.send(request("GET"));
    EXPECT_THROW(client.receive(), std::runtime_error);
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
}

/// Counts what was asked of it; each piece comes from another thread.
class Pieces final : public BodyProducer
{
public:
    Pieces(std::size_t count, std::size_t size, std::shared_ptr<std::atomic<std::size_t>> made, bool fails)
        : left_(count), size_(size), made_(std::move(made)), fails_(fails)
    {}
    ~Pieces() override
    {
        if (thread_.joinable())
            thread_.join();
    }

    Future<std::string> next() override
    {
        if (thread_.joinable())
            thread_.join();
        ++*made_;
        Promise<std::string> promise;
        auto piece = promise.future();
        thread_ = std::thread([this, promise = std::move(promise)]() mutable {
            if (left_ > 0)
                promise.setValue(std::string(size_, static_cast<char>('a' + --left_ % 26)));
            else if (fails_)
                promise.setException(std::runtime_error("out of pieces"));
            else
                promise.setValue({});
        });
        return piece;
    }

private:
    std::size_t left_;
    std::size_t size_;
    std::shared_ptr<std::atomic<std::size_t>> made_;
    bool fails_;
    std::thread thread_;
};

struct ProducerCase
{
    std::size_t count;
    std::size_t size;
    bool fails = false;
    std::shared_ptr<std::atomic<std::size_t>> made = std::make_shared<std::atomic<std::size_t>>(0);

    Serve serve() const
    {
        return [*this](auto) {
            auto response = std::make_unique<HttpResponse>(200);
            response->producer = std::make_unique<Pieces>(count, size, made, fails);
            return makeReadyFuture<Answer>(std::move(response));
        };
    }
};

TEST(ResponseProducer, sendsChunksAndKeepsTheConnection)
{
    const ProducerCase pieces{3, 4};
    const auto server = serverOf(pieces.serve());
    WireClient client(server->port());
    for (int round = 0; round < 2; ++round) {
        client.send(request("GET"));
        const std::string head = client.receiveHead();
        EXPECT_NE(head.find("Transfer-Encoding: chunked"), std::string::npos);
        EXPECT_EQ(head.find("Content-Length"), std::string::npos);
        EXPECT_EQ(client.take(std::strlen("4\r\ncccc\r\n4\r\nbbbb\r\n4\r\naaaa\r\n0\r\n\r\n")),
                  "4\r\ncccc\r\n4\r\nbbbb\r\n4\r\naaaa\r\n0\r\n\r\n");
    }
}

TEST(ResponseProducer, endsWithTheConnectionForOldClients)
{
    const ProducerCase pieces{2, 3};
    const auto server = serverOf(pieces.serve());
    WireClient client(server->port());
    client.send("GET / HTTP/1.0\r\nHost: localhost\r\nConnection: keep-alive\r\n\r\n");
    const std::string head = client.receiveHead();
    EXPECT_EQ(head.find("chunked"), std::string::npos);
    EXPECT_EQ(head.find("keep-alive"), std::string::npos);
    EXPECT_EQ(client.take(6), "bbbaaa");
    EXPECT_TRUE(client.isClosed());
}

TEST(ResponseProducer, thatFailsLeavesNoEndBehind)
{
    const ProducerCase pieces{1, 3, true};
    const auto server = serverOf(pieces.serve());
    WireClient client(server->port());
    client.send(request("GET"));
    client.receiveHead();
    EXPECT_EQ(client.take(8), "3\r\naaa\r\n");
    EXPECT_THROW(client.take(1), std::runtime_error);
}

TEST(ResponseProducer, waitsForTheClientAndStopsWhenItLeaves)
{
    const ProducerCase pieces{100'000, 64u << 10};
    const auto server = serverOf(pieces.serve());
    {
        WireClient client(server->port());
        client.send(request("GET"));
        client.receiveHead();
        // What the sockets hold between them, and no more, is made ahead of a client that does not read.
        std::size_t seen = 0;
        auto since = std::chrono::steady_clock::now();
        EXPECT_TRUE(eventually([&] {
            if (*pieces.made != seen) {
                seen = *pieces.made;
                since = std::chrono::steady_clock::now();
            }
            return seen > 0 && std::chrono::steady_clock::now() - since > 100ms;
        }));
        EXPECT_LT(*pieces.made, 500u);
    }
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
}

/// Answers with size and a sum of what was received; "refuse" without looking at it.
struct Uploads
{
    std::uint64_t maxBytes = 4'096 * kMiB;
    std::shared_ptr<std::atomic<int>> cancelled = std::make_shared<std::atomic<int>>(0);

    MessageFuture operator()(std::unique_ptr<HttpRequest> request) const
    {
        if (request->headers.find("X-Refuse"))
            return makeReadyFuture<Answer>(text(401, "no"));
        if (!request->pendingBody)
            return makeReadyFuture<Answer>(text(200, "small " + std::to_string(request->body.size())));
        return request->pendingBody->receive(maxBytes).then([count =
                                                                 cancelled](Future<ReceivedBody> received) -> Answer {
            try {
                const ReceivedBody body = received.get();
                std::string content(body.size, '\0');
                if (::pread(body.file->number(), content.data(), content.size(), 0) != static_cast<ssize_t>(body.size))
                    return text(500, "short file");
                return text(200, std::to_string(body.size) + " " + std::to_string(std::hash<std::string>()(content)));
            } catch (const FutureCancelled&) {
                ++*count;
                throw;
            }
        });
    }
};

std::string sumOf(const std::string& content)
{
    return std::to_string(content.size()) + " " + std::to_string(std::hash<std::string>()(content));
}

TEST(LargeBody, comesThroughAFileAndTheNextRequestFollows)
{
    ServerSettings settings;
    settings.memoryBodyBytes = 1'000;
    const auto server = serverOf(Uploads{}, settings);
    const std::string content = pattern(3 * kMiB + 17);
    std::string chunked;
    for (std::size_t at = 0; at < content.size(); at += 70'001) {
        const auto piece = content.substr(at, 70'001);
        char size[20];
        std::snprintf(size, sizeof(size), "%zx\r\n", piece.size());
        chunked += size + piece + "\r\n";
    }
    chunked += "0\r\nX-Trailer: 1\r\n\r\n";
    const std::string length = "Content-Length: " + std::to_string(content.size()) + "\r\n";

    WireClient client(server->port());
    EXPECT_EQ(client.ask(request("POST", length, content)).body, sumOf(content));
    EXPECT_EQ(client.ask(request("POST", "Transfer-Encoding: chunked\r\n", chunked)).body, sumOf(content));
    client.send(request("PUT", length + "Expect: 100-continue\r\n"));
    EXPECT_EQ(client.receiveHead(), "HTTP/1.1 100 Continue\r\n");
    // The next request right behind the body.
    client.send(content + request("POST", "Content-Length: 3\r\n", "abc"));
    EXPECT_EQ(client.receive().body, sumOf(content));
    EXPECT_EQ(client.receive().body, "small 3");
}

TEST(LargeBody, costsNoMemory)
{
    const auto server = serverOf([](std::unique_ptr<HttpRequest> request) {
        return request->pendingBody->receive(1'024 * kMiB).then([](Future<ReceivedBody> received) -> Answer {
            return text(200, std::to_string(received.get().size));
        });
    });
    WireClient client(server->port());
    const std::string piece = pattern(kMiB);
    client.send(request("POST", "Content-Length: " + std::to_string(200 * kMiB) + "\r\n"));
    client.send(piece);
    const auto before = residentBytes();
    for (int i = 1; i < 200; ++i)
        client.send(piece);
    EXPECT_EQ(client.receive().body, std::to_string(200 * kMiB));
    EXPECT_LT(residentBytes(), before + 16 * kMiB);
}

TEST(LargeBody, thatNobodyWantsIsNotRead)
{
    const auto server = serverOf(Uploads{});
    WireClient client(server->port());
    client.send(request("POST", "X-Refuse: 1\r\nExpect: 100-continue\r\nContent-Length: 50000000\r\n"));
    const auto response = client.receive();
    EXPECT_EQ(response.status, 401u);
    EXPECT_EQ(response.header("Connection"), "close");
    EXPECT_TRUE(client.isClosed());
    // A client that sends all the same still gets the reason.
    WireClient eager(server->port());
    eager.sendWhatGoes(request("POST", "X-Refuse: 1\r\nContent-Length: 3000000\r\n", pattern(2'000'000)));
    EXPECT_EQ(eager.receive().status, 401u);
}

TEST(LargeBody, refusals)
{
    struct Case
    {
        const char* what;
        unsigned status;
        std::string fields;
        std::string body;
        std::function<void(ServerSettings&)> set = [](ServerSettings&) {};
    };
    const std::string chunk = "200000\r\n" + std::string(0x200000, 'x') + "\r\n";
    const std::vector<Case> cases{
        {"announced beyond the provider's limit", 413, "Content-Length: 9000000\r\n", ""},
        {"chunked beyond it", 413, "Transfer-Encoding: chunked\r\n", chunk + chunk + chunk + chunk + chunk},
        {"beyond all spooled bodies", 503, "Content-Length: 4000000\r\n", std::string(4'000'000, 'x'),
         [](ServerSettings& settings) { settings.maxSpooledBytes = 3'000'000; }},
        {"no folder", 507, "Content-Length: 4000000\r\n", "",
         [](ServerSettings& settings) { settings.spoolFolder = "/nonexistent"; }},
        {"broken chunk", 400, "Transfer-Encoding: chunked\r\n", chunk + "zz\r\n"},
        {"too slow", 408, "Content-Length: 4000000\r\n", "x",
         [](ServerSettings& settings) { settings.bodyRateGrace = 40ms; }},
    };
    for (const Case& each : cases) {
        ServerSettings settings;
        each.set(settings);
        const auto server = serverOf(Uploads{8 * kMiB}, settings);
        WireClient client(server->port());
        client.sendWhatGoes(request("POST", each.fields, each.body));
        const auto response = client.receive();
        EXPECT_EQ(response.status, each.status) << each.what;
        EXPECT_EQ(response.header("Connection"), "close") << each.what;
        EXPECT_TRUE(eventually([&] { return server->counters().requestsInFlight == 0; })) << each.what;
    }
}

TEST(LargeBody, endsWithItsClient)
{
    const Uploads uploads;
    const auto server = serverOf(uploads);
    for (const bool abort : {true, false}) {
        WireClient client(server->port());
        client.send(request("POST", "Content-Length: 4000000\r\n", std::string(1'500'000, 'x')));
        EXPECT_TRUE(eventually([&] { return server->counters().requestsInFlight == 1; }));
        if (abort)
            client.abort();
        else
            client.finishSending();
        EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
    }
    EXPECT_TRUE(eventually([&] { return *uploads.cancelled == 2; }));
}

TEST(Listening, localhostMeansBothFamiliesAndAUnixSocketIsTheUsersOwn)
{
    const std::string path = testing::TempDir() + "connector-" + std::to_string(::getpid()) + ".socket";
    ServerSettings settings;
    settings.unixSocket = path;
    const Serve who = [](std::unique_ptr<HttpRequest> request) {
        return makeReadyFuture<Answer>(text(200, request->peerAddress + " " + std::to_string(request->localPort)));
    };
    {
        const auto server = serverOf(who, settings);
        const std::string port = std::to_string(server->port());
        EXPECT_EQ(WireClient(server->port()).ask(request("GET")).body, "127.0.0.1 " + port);
        EXPECT_EQ(WireClient("::1", server->port()).ask(request("GET")).body, "::1 " + port);
        EXPECT_EQ(WireClient(path).ask(request("GET")).body, "unix 0");
        EXPECT_EQ(std::filesystem::status(path).permissions(),
                  std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        EXPECT_THROW(serverOf(who, settings), std::runtime_error) << "somebody listens there";
    }
    EXPECT_FALSE(std::filesystem::exists(path));

    // A socket that a process left behind is replaced, anything else stays.
    {
        const common::FileDescriptor left(::socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ASSERT_EQ(::bind(left.number(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    EXPECT_NO_THROW(serverOf(who, settings));
    std::ofstream(path) << "precious";
    EXPECT_THROW(serverOf(who, settings), std::runtime_error);
    EXPECT_TRUE(std::filesystem::exists(path));
    std::filesystem::remove(path);
}

} // namespace
} // namespace connector::http
