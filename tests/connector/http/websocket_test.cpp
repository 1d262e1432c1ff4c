#include <map>
#include <sstream>
#include <thread>

#include <Poco/DeflatingStream.h>
#include <gtest/gtest.h>

#include "connector/core/Connector.h"
#include "connector/http/PocoHttpsServer.h"
#include "connector/http/WebSocket.h"
#include "connector/http/http_client.h"

namespace connector::http {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::WireClient;

/// Sends everything back; keeps what happened.
class Echo final : public WebSocketEndpoint
{
public:
    void opened(std::shared_ptr<WebSocketConnection> connection) override
    {
        std::lock_guard lock(mutex_);
        connection_ = std::move(connection);
    }
    void received(std::string message, bool binary) override { connection()->send(std::move(message), binary); }
    void closed(std::uint16_t code, const std::string& reason) override
    {
        std::lock_guard lock(mutex_);
        ++closings_;
        code_ = code;
        reason_ = reason;
    }

    std::shared_ptr<WebSocketConnection> connection() const
    {
        std::lock_guard lock(mutex_);
        return connection_;
    }
    bool endedOnce(std::uint16_t code) const
    {
        return eventually([&] {
            std::lock_guard lock(mutex_);
            return closings_ == 1 && code_ == code;
        });
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<WebSocketConnection> connection_;
    int closings_ = 0;
    std::uint16_t code_ = 0;
    std::string reason_;
};

class WebSocketServer : public testing::Test
{
protected:
    explicit WebSocketServer(WebSocketOptions options = {}, const ServerSettings& settings = {})
    {
        server = std::make_shared<PocoHttpsServer>(settings, [this, options](std::unique_ptr<HttpRequest> request) {
            PocoHttpsServer::Exchange exchange;
            auto response = acceptWebSocket(*request, echo, options);
            if (response->upgrade)
                response->headers.add("X-Greeting", "hello");
            auto late = std::make_shared<std::unique_ptr<HttpResponse>>(std::move(response));
            if (request->path != "/late") {
                exchange.answer = makeReadyFuture<std::unique_ptr<Message>>(std::move(*late));
            } else {
                Promise<std::unique_ptr<Message>> promise;
                exchange.answer = promise.future();
                thread =
                    std::thread([late, promise = std::move(promise)]() mutable { promise.setValue(std::move(*late)); });
            }
            return exchange;
        });
        server->open();
    }
    ~WebSocketServer() override
    {
        server->close();
        if (thread.joinable())
            thread.join();
    }

    static std::string handshake(const std::string& fields = "", const std::string& path = "/")
    {
        return "GET " + path +
               " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: keep-alive, Upgrade\r\n"
               "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n" +
               fields + "\r\n";
    }
    WireClient open()
    {
        WireClient client(server->port());
        client.send(handshake());
        client.receiveHead();
        return client;
    }

    std::shared_ptr<Echo> echo = std::make_shared<Echo>();
    std::shared_ptr<PocoHttpsServer> server;
    std::thread thread;
};

enum Opcode
{
    continuation = 0,
    textFrame = 1,
    binaryFrame = 2,
    closeFrame = 8,
    ping = 9,
    pong = 10
};
constexpr int kFinal = 0x80;

/// One frame as a client masks it.
std::string frame(int firstByte, const std::string& payload, bool masked = true)
{
    std::string bytes(1, static_cast<char>(firstByte));
    const char mask = masked ? static_cast<char>(0x80) : '\0';
    const auto size = payload.size();
    if (size < 126) {
        bytes += static_cast<char>(mask | static_cast<char>(size));
    } else if (size < 65'536) {
        bytes += static_cast<char>(mask | 126);
        bytes += static_cast<char>(size >> 8);
        bytes += static_cast<char>(size & 0xff);
    } else {
        bytes += static_cast<char>(mask | 127);
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes += static_cast<char>((static_cast<std::uint64_t>(size) >> shift) & 0xff);
    }
    if (!masked)
        return bytes + payload;
    const std::string key = "\x12\x34\x56\x78";
    bytes += key;
    for (std::size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(payload[i] ^ key[i % 4]);
    return bytes;
}

std::string closing(std::uint16_t code, const std::string& reason = "")
{
    return std::string{static_cast<char>(code >> 8), static_cast<char>(code & 0xff)} + reason;
}

struct Frame
{
    int firstByte;
    std::string payload;
};

Frame receive(WireClient& client)
{
    const std::string head = client.take(2);
    std::size_t size = static_cast<unsigned char>(head[1]);
    if (size >= 126) {
        const std::string more = client.take(size == 126 ? 2 : 8);
        size = 0;
        for (const char c : more)
            size = size << 8 | static_cast<unsigned char>(c);
    }
    return {static_cast<unsigned char>(head[0]), client.take(size)};
}

TEST_F(WebSocketServer, answersTheHandshakeAndSendsBack)
{
    for (const std::string path : {"/", "/late"}) {
        WireClient client(server->port());
        client.send(handshake("", path) + frame(kFinal | textFrame, "right behind"));
        const std::string head = client.receiveHead();
        EXPECT_EQ(head.substr(0, 34), "HTTP/1.1 101 Switching Protocols\r\n");
        EXPECT_NE(head.find("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo="), std::string::npos) << head;
        EXPECT_NE(head.find("X-Greeting: hello"), std::string::npos);
        EXPECT_EQ(receive(client).payload, "right behind");
        for (const std::size_t size : {0u, 125u, 126u, 65'535u, 65'536u, 1u << 20}) {
            const std::string content(size, 'x');
            client.send(frame(kFinal | binaryFrame, content));
            const Frame back = receive(client);
            EXPECT_EQ(back.firstByte, kFinal | binaryFrame);
            EXPECT_TRUE(back.payload == content);
        }
        client.send(frame(textFrame, "in ") + frame(kFinal | ping, "ping") + frame(continuation, "three ") +
                    frame(kFinal | continuation, "parts"));
        EXPECT_EQ(receive(client).payload, "ping");
        EXPECT_EQ(receive(client).payload, "in three parts");
        client.send(frame(kFinal | closeFrame, closing(1000, "bye")));
        EXPECT_EQ(receive(client).payload.substr(0, 2), closing(1000));
        EXPECT_TRUE(client.isClosed());
        EXPECT_TRUE(echo->endedOnce(1000));
        EXPECT_FALSE(echo->connection()->send("too late"));
        echo = std::make_shared<Echo>();
        if (thread.joinable())
            thread.join();
    }
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
}

TEST_F(WebSocketServer, refusesWhatIsNoHandshake)
{
    const std::string good = handshake();
    const auto with = [&good](const std::string& from, const std::string& to) {
        std::string changed = good;
        return changed.replace(changed.find(from), from.size(), to);
    };
    const std::vector<std::pair<unsigned, std::string>> cases{
        {426, with("Upgrade: websocket", "Upgrade: h2c")},
        {426, with("keep-alive, Upgrade", "keep-alive")},
        {426, with("Version: 13", "Version: 8")},
        {400, with("dGhlIHNhbXBsZSBub25jZQ==", "dGhl")},
        {400, with("Sec-WebSocket-Key", "Sec-WebSocket-Kee")},
        {400, with("dGhlIHNhbXBsZSBub25jZQ==", "!!!!IHNhbXBsZSBub25jZQ==")},
        {405, with("GET /", "PUT /")},
        {400, with("HTTP/1.1", "HTTP/1.0")},
    };
    for (const auto& [status, wire] : cases) {
        WireClient client(server->port());
        EXPECT_EQ(client.ask(wire).status, status) << wire;
    }
    EXPECT_EQ(echo->connection(), nullptr);
}

TEST_F(WebSocketServer, closesOnFramesThatBreakTheRules)
{
    struct Case
    {
        const char* what;
        std::string bytes;
        std::uint16_t code;
    };
    std::string pings;
    for (int i = 0; i < 200; ++i)
        pings += frame(kFinal | ping, "");
    const std::vector<Case> cases{
        {"not masked", frame(kFinal | textFrame, "a", false), 1002},
        {"reserved bit", frame(kFinal | 0x40 | textFrame, "a"), 1002},
        {"reserved opcode", frame(kFinal | 3, "a"), 1002},
        {"continuation of nothing", frame(kFinal | continuation, "a"), 1002},
        {"message within a message", frame(textFrame, "a") + frame(kFinal | textFrame, "b"), 1002},
        {"fragmented ping", frame(ping, "a"), 1002},
        {"ping of 126 bytes", frame(kFinal | ping, std::string(126, 'a')), 1002},
        {"close with one byte", frame(kFinal | closeFrame, "a"), 1002},
        {"close with a code that is not for the wire", frame(kFinal | closeFrame, closing(1005)), 1002},
        {"close with a code below all", frame(kFinal | closeFrame, closing(999)), 1002},
        {"close with a code that nobody gave out", frame(kFinal | closeFrame, closing(2999)), 1002},
        {"close with the first code above all", frame(kFinal | closeFrame, closing(5000, "bye")), 1002},
        {"close with the last number", frame(kFinal | closeFrame, closing(65535)), 1002},
        {"text that is not UTF-8", frame(kFinal | textFrame, "\xff"), 1007},
        {"message of more than 1 MiB", frame(kFinal | binaryFrame, std::string((1u << 20) + 1, 'a')), 1009},
        {"fragments of more than 1 MiB",
         frame(binaryFrame, std::string(1u << 20, 'a')) + frame(kFinal | continuation, "a"), 1009},
        {"length with the top bit", std::string("\x82\xff\xff\xff\xff\xff\xff\xff\xff\xff", 10) + "mask", 1009},
        {"two hundred pings", pings, 1008},
    };
    for (const Case& each : cases) {
        echo = std::make_shared<Echo>();
        SCOPED_TRACE(each.what);
        WireClient client = open();
        client.sendWhatGoes(each.bytes);
        Frame last{};
        do {
            last = receive(client);
        } while (last.firstByte != (kFinal | closeFrame));
        EXPECT_EQ(last.payload.substr(0, 2), closing(each.code));
        client.sendWhatGoes(frame(kFinal | closeFrame, closing(each.code)));
        EXPECT_TRUE(client.isClosed());
    }
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
}

TEST_F(WebSocketServer, tellsHowItEnded)
{
    {
        WireClient client = open();
        EXPECT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
    }
    EXPECT_TRUE(echo->endedOnce(1006)) << "the client went without a word";

    echo = std::make_shared<Echo>();
    WireClient client = open();
    EXPECT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
    echo->connection()->send("last words");
    echo->connection()->close(4'000, "enough");
    EXPECT_FALSE(echo->connection()->send("after that"));
    EXPECT_EQ(receive(client).payload, "last words");
    EXPECT_EQ(receive(client).payload, closing(4'000, "enough"));
    client.send(frame(kFinal | closeFrame, closing(4'000)));
    EXPECT_TRUE(echo->endedOnce(4'000));

    echo = std::make_shared<Echo>();
    WireClient last = open();
    EXPECT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
    std::thread closer([this] { server->close(); });
    EXPECT_EQ(receive(last).payload.substr(0, 2), closing(1001));
    closer.join();
    EXPECT_TRUE(echo->endedOnce(1001));
    EXPECT_FALSE(echo->connection()->send("to nobody"));
}

class IdleServer : public WebSocketServer
{
protected:
    IdleServer() : WebSocketServer(options(), settings()) {}

    static WebSocketOptions options()
    {
        WebSocketOptions options;
        options.idleTime = 400ms;
        return options;
    }
    /// It looks at its clients at a quarter of the shortest of its times.
    static ServerSettings settings()
    {
        ServerSettings settings;
        settings.lingerTimeout = 40ms;
        return settings;
    }
};

TEST_F(IdleServer, asksASilentClientAndEndsOneThatDoesNotAnswer)
{
    WireClient client = open();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(receive(client).firstByte, kFinal | ping);
        client.send(frame(kFinal | pong, ""));
    }
    client.send(frame(textFrame, "half"));
    EXPECT_EQ(receive(client).firstByte, kFinal | ping);
    EXPECT_TRUE(echo->connection()->send("still there"));
    EXPECT_EQ(receive(client).payload, "still there");
    EXPECT_TRUE(client.isClosed());
    EXPECT_TRUE(echo->endedOnce(1006));
}

TEST_F(WebSocketServer, boundsWhatAClientDoesNotRead)
{
    WireClient client = open();
    EXPECT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
    const auto connection = echo->connection();
    const std::string message(64u << 10, 'x');
    std::size_t sent = 0;
    while (connection->send(message) && sent < (64u << 20))
        sent += message.size();
    EXPECT_LT(sent, 32u << 20);
    EXPECT_LE(connection->queuedBytes(), WebSocketOptions().maxQueuedBytes);
    EXPECT_FALSE(connection->send("more"));
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
    EXPECT_TRUE(echo->endedOnce(1008));
}

/// Threads that send themselves, threads that leave it to the connection's, and the protocol's own answers share one
/// socket, which takes many messages in part.
TEST_F(WebSocketServer, keepsFramesWholeAndInOrderWhoeverSendsThem)
{
    WireClient client = open();
    ASSERT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
    const auto connection = echo->connection();
    constexpr int kMessages = 2'000;
    constexpr int kPings = 50;
    const std::string padding(60'000, 'x');
    std::vector<std::thread> senders;
    for (const auto& [name, when] :
         {std::pair('n', SendWhen::now), std::pair('s', SendWhen::soon), std::pair('w', SendWhen::withNext)})
        senders.emplace_back([&, name = name, when = when] {
            for (int i = 0; i < kMessages; ++i) {
                auto text = name + std::to_string(i) + ' ';
                text.append(padding, 0, static_cast<std::size_t>(i * 37) % (i % 5 ? 100 : padding.size()));
                EXPECT_TRUE(connection->waitForRoom(std::chrono::seconds(10)));
                EXPECT_TRUE(connection->send(std::make_shared<const std::string>(std::move(text)), when));
            }
        });
    std::map<char, int> next;
    int pings = 0;
    int pongs = 0;
    for (int messages = 0; messages < 3 * kMessages || pongs < pings;) {
        if (pings < kPings && messages / 100 == pings) {
            client.send(frame(kFinal | ping, "p"));
            ++pings;
        }
        const Frame got = receive(client);
        if (got.firstByte == (kFinal | pong)) {
            ++pongs;
            continue;
        }
        ++messages;
        ASSERT_EQ(got.firstByte, kFinal | textFrame);
        const char sender = got.payload.at(0);
        ASSERT_EQ(got.payload.substr(1, got.payload.find(' ') - 1), std::to_string(next[sender]++)) << sender;
    }
    for (auto& sender : senders)
        sender.join();
    EXPECT_EQ(pongs, kPings);
    EXPECT_TRUE(eventually([&] { return connection->queuedBytes() == 0; }));
    // What waits for company goes by itself when none comes.
    connection->send(std::make_shared<const std::string>("alone"), SendWhen::withNext);
    EXPECT_EQ(receive(client).payload, "alone");
    connection->send(std::make_shared<const std::string>("first"), SendWhen::withNext);
    connection->send(std::make_shared<const std::string>("then"), SendWhen::now);
    EXPECT_EQ(receive(client).payload, "first");
    EXPECT_EQ(receive(client).payload, "then");
}

TEST_F(WebSocketServer, endsWhileOtherThreadsWriteToTheSocket)
{
    for (int round = 0; round < 40; ++round) {
        echo = std::make_shared<Echo>();
        auto client = std::make_unique<WireClient>(open());
        ASSERT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
        const auto connection = echo->connection();
        const auto text = std::make_shared<const std::string>(1'000, 'x');
        std::thread sender([&] {
            while (connection->send(text, SendWhen::now)) {
            }
        });
        receive(*client);
        if (round % 2)
            client->send(frame(kFinal | closeFrame, closing(1000)));
        else
            client.reset();
        sender.join();
    }
    EXPECT_TRUE(eventually([&] { return server->counters().connections == 0; }));
}

TEST_F(WebSocketServer, letsASenderWaitForASlowClient)
{
    WireClient client = open();
    EXPECT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
    const auto connection = echo->connection();
    const std::string message(64u << 10, 'x');
    constexpr int kMessages = 1'000; // 64 MiB, far more than the queue takes
    std::thread sender([&] {
        for (int i = 0; i < kMessages; ++i) {
            EXPECT_TRUE(connection->waitForRoom(std::chrono::seconds(10)));
            EXPECT_TRUE(connection->send(message));
        }
    });
    for (int i = 0; i < kMessages; ++i)
        EXPECT_EQ(receive(client).payload.size(), message.size());
    sender.join();
    EXPECT_TRUE(eventually([&] { // the sockets themselves take some more for a while
        while (connection->waitForRoom(std::chrono::milliseconds(0)))
            connection->send(message);
        return !connection->waitForRoom(std::chrono::milliseconds(100));
    })) << "nobody reads";
    client.abort();
    EXPECT_TRUE(connection->waitForRoom(std::chrono::seconds(10))) << "nobody to wait for";
}

TEST_F(WebSocketServer, takesMessagesOfManyThreads)
{
    WireClient client = open();
    EXPECT_TRUE(eventually([&] { return echo->connection() != nullptr; }));
    constexpr int kEach = 500;
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i)
        senders.emplace_back([connection = echo->connection(), i] {
            for (int n = 0; n < kEach; ++n)
                connection->send(std::to_string(i) + " " + std::to_string(n));
        });
    std::array<int, 4> next{};
    for (int n = 0; n < 4 * kEach; ++n) {
        const Frame got = receive(client);
        const auto sender = static_cast<std::size_t>(got.payload[0] - '0');
        EXPECT_EQ(got.payload.substr(2), std::to_string(next.at(sender)++));
    }
    for (auto& sender : senders)
        sender.join();
}

class CompressingServer : public WebSocketServer
{
protected:
    static WebSocketOptions options()
    {
        WebSocketOptions options;
        options.compression = true;
        return options;
    }
    CompressingServer() : WebSocketServer(options()) {}
};

TEST_F(CompressingServer, countsInflatedBytes)
{
    const std::string offer = "Sec-WebSocket-Extensions: permessage-deflate\r\n";
    WireClient client(server->port());
    client.send(handshake(offer));
    EXPECT_NE(client.receiveHead().find("permessage-deflate"), std::string::npos);
    // "Hello" as RFC 7692 §7.2.3.1 has it.
    client.send(frame(kFinal | 0x40 | textFrame, std::string("\xf2\x48\xcd\xc9\xc9\x07\x00", 7)));
    EXPECT_FALSE(receive(client).payload.empty());
    // 2 MiB of one letter in a final block (RFC 7692 §7.2.3.5), without the frame that the stream puts around it.
    std::ostringstream packed;
    Poco::DeflatingOutputStream deflating(packed, Poco::DeflatingStreamBuf::STREAM_ZLIB, 9);
    deflating << std::string(2u << 20, 'x');
    deflating.close();
    const std::string bomb = packed.str().substr(2, packed.str().size() - 6) + '\0';
    EXPECT_LT(bomb.size(), 4'000u);
    client.sendWhatGoes(frame(kFinal | 0x40 | binaryFrame, bomb));
    const Frame last = receive(client);
    EXPECT_EQ(last.firstByte, kFinal | closeFrame);
    client.sendWhatGoes(frame(kFinal | closeFrame, closing(1009)));
    EXPECT_TRUE(client.isClosed());
}

} // namespace
} // namespace connector::http
