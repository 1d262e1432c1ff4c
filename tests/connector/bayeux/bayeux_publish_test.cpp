#include "connector/bayeux/ScriptBus.h"
#include "connector/bayeux/bayeux_fixture.h"

namespace connector::bayeux {
namespace {

using namespace std::chrono_literals;

TEST(BayeuxPublishing, onlyTheSystemSpeaksOnReservedChannels)
{
    Bus bus;
    ScriptBus scripts(bus.server);
    auto tree = bus.server->reserve("/system/**");
    auto again = bus.server->reserve("/system/**");
    auto one = bus.server->reserve("/clock");
    for (const char* bad : {"/service/x", "/meta/**", "system", "/a/*/b"})
        EXPECT_THROW(bus.server->reserve(bad), std::invalid_argument) << bad;
    const auto local = bus.server->openLocalSession("local", [](const BayeuxMessage&) {});
    std::vector<std::string> seen;
    const auto all =
        bus.server->subscribe("/**", [&](const BayeuxMessage& message) { seen.push_back(message.channel); });
    for (const auto& origin : {bus.http(), bus.socket()}) {
        bus.join(origin);
        for (const std::string channel :
             {"/system/eval/1", "/system/state", "/clock", "/presence/room", "/presence/a/b"}) {
            SCOPED_TRACE(channel);
            const auto reply =
                bus.ask(R"([{"channel":")" + channel + R"(","clientId":"$C","data":1,"id":"f"}])", origin);
            EXPECT_EQ(reply, R"([{"channel":")" + channel + R"(","error":"403","id":"f","successful":false}])");
            EXPECT_THROW(bus.server->publishAs(*local, channel, 1), std::invalid_argument);
            try {
                scripts.publish(channel, "1", {});
                FAIL();
            } catch (const std::invalid_argument& error) {
                EXPECT_NE(std::string(error.what()).find('"' + channel + '"'), std::string::npos) << error.what();
            }
        }
    }
    EXPECT_TRUE(seen.empty());
    bus.server->publish("/system/state", 1);
    scripts.tell("/clock", "2");
    EXPECT_EQ(seen, (std::vector<std::string>{"/system/state", "/clock"}));
    // Neighbours by name are nobody's, nor is what was given back.
    one.reset();
    tree.reset();
    for (const char* free : {"/clock", "/systematic", "/system", "/interpreter/mine"})
        EXPECT_NE(bus.ask(R"([{"channel":")" + std::string(free) + R"(","clientId":"$C","data":1}])", bus.socket())
                      .find("\"successful\":true"),
                  std::string::npos)
            << free;
    EXPECT_TRUE(bus.server->isReserved("/system/x")) << "it was declared twice";
    again.reset();
    EXPECT_FALSE(bus.server->isReserved("/system/x"));
}

/// Its client reads nothing.
class FullSink final : public BayeuxChannelSink
{
public:
    bool send(const std::shared_ptr<const std::string>&, http::SendWhen) override { return true; }
    bool waitForRoom(std::chrono::milliseconds patience) override
    {
        ++asked;
        std::unique_lock lock(mutex_);
        return never_.wait_for(lock, patience, [] { return false; });
    }
    std::size_t queuedBytes() const override { return 3u << 20; }
    void close() override {}

    std::atomic<unsigned> asked{0};

private:
    std::mutex mutex_;
    std::condition_variable never_;
};

TEST(BayeuxPublishing, whoPublishesWaitsOnceForAllThatAreBehind)
{
    Bus bus;
    auto limits = bus.server->limits();
    limits.queueMessages = 10;
    bus.server->setLimits(limits);
    ScriptBus scripts(bus.server);
    const auto crowd = [&](const std::string& channel) {
        std::vector<std::shared_ptr<FullSink>> sinks;
        for (int i = 0; i < 100; ++i) {
            sinks.push_back(std::make_shared<FullSink>());
            const BayeuxOrigin origin{"", sinks.back(), ""};
            bus.join(origin);
            bus.subscribe(channel, origin);
        }
        return sinks;
    };
    const auto took = [&](const std::string& channel, const std::function<bool()>& goOn) {
        const auto begin = std::chrono::steady_clock::now();
        scripts.publish(channel, '"' + std::string(16u << 10, 'x') + '"', goOn);
        return std::chrono::steady_clock::now() - begin;
    };

    // Their clients left without a word: nobody is there that could be waited for.
    for (int i = 0; i < 30; ++i) {
        bus.join(bus.http());
        bus.subscribe("/gone", bus.http());
        bus.post(Bus::kConnect, bus.http()).cancel();
    }
    for (int i = 0; i < 9; ++i)
        EXPECT_LT(took("/gone", {}), 500ms);

    const auto unread = crowd("/unread");
    const auto first = took("/unread", {});
    EXPECT_GE(first, ScriptBus::kPatience);
    EXPECT_LT(first, ScriptBus::kPatience + 500ms);
    // Nobody moved since.
    EXPECT_LT(took("/unread", {}), 500ms);

    const auto others = crowd("/others");
    int looks = 0;
    EXPECT_LT(took("/others", [&] { return ++looks < 3; }), 500ms);
    EXPECT_EQ(looks, 3);
    EXPECT_GE(took("/others", {}), ScriptBus::kPatience) << "a wait that was ended early says nothing about them";
}

} // namespace
} // namespace connector::bayeux
