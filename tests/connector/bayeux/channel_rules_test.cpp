#include "connector/bayeux/bayeux_fixture.h"

namespace connector::bayeux {
namespace {

const std::string kJoined = R"("successful":true)";

ChannelRule closedTo(bool publishers, bool subscribers)
{
    ChannelRule rule;
    rule.publishers.everybody = !publishers;
    rule.subscribers.everybody = !subscribers;
    return rule;
}

class ChannelRulesTest : public testing::Test
{
protected:
    void SetUp() override { bus_.join(bus_.socket()); }

    bool subscribes(const std::string& channel)
    {
        return bus_.ask(R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":")" + channel + "\"}]",
                        bus_.socket())
                   .find(kJoined) != std::string::npos;
    }
    bool publishes(const std::string& channel)
    {
        return bus_.ask(R"([{"channel":")" + channel + R"(","clientId":"$C","data":1}])", bus_.socket())
                   .find(kJoined) != std::string::npos;
    }
    std::string publicId() const { return bus_.server->findSession(bus_.client)->publicId(); }

    Bus bus_;
};

TEST_F(ChannelRulesTest, hiddenChannelsDoNotExistForClients)
{
    ASSERT_TRUE(subscribes("/**"));
    ASSERT_TRUE(subscribes("/secret/late"));
    std::vector<std::string> heard;
    const auto function =
        bus_.server->subscribe("/secret/**", [&](const BayeuxMessage& message) { heard.push_back(message.channel); });
    const auto rule = bus_.server->addRule("/secret/**", closedTo(true, true));
    for (const char* refused : {"/secret/a", "/secret/a/b", "/secret/*", "/secret/**", "/secret/a/**"})
        EXPECT_FALSE(subscribes(refused)) << refused;
    for (const char* open : {"/secret", "/*", "/secrets/a"})
        EXPECT_TRUE(subscribes(open)) << open;
    EXPECT_FALSE(publishes("/secret/a"));
    bus_.server->publish("/secret/late", 1);
    bus_.server->publish("/open", 2);
    EXPECT_EQ(heard, std::vector<std::string>{"/secret/late"}) << "what this process does is not restricted";
    EXPECT_EQ(bus_.sink->take(), std::vector<std::string>{"[" + event("/open", "2") + "]"})
        << "neither a pattern nor a subscription of before brings it";
}

TEST_F(ChannelRulesTest, aWiderPatternThanTheRuleIsOpenButForWhatTheRuleCovers)
{
    const auto rule = bus_.server->addRule("/a/*", closedTo(false, true));
    EXPECT_FALSE(subscribes("/a/*"));
    ASSERT_TRUE(subscribes("/a/**"));
    bus_.server->publish("/a/b", 1);
    bus_.server->publish("/a/b/c", 2);
    EXPECT_EQ(bus_.sink->take(), std::vector<std::string>{"[" + event("/a/b/c", "2") + "]"});
}

TEST_F(ChannelRulesTest, rulesOfAChannelAddUpAndGoOneByOne)
{
    const auto handler = bus_.server->handleService("/service/x", [](const BayeuxMessage&) { return 1; });
    auto all = bus_.server->addRule("/**", closedTo(true, false));
    ChannelRule onlyMe;
    onlyMe.publishers = {false, {publicId()}};
    auto one = bus_.server->addRule("/one", onlyMe);
    auto service = bus_.server->addRule("/service/x", closedTo(true, false));
    EXPECT_FALSE(publishes("/one")) << "what one rule forbids no other allows";
    EXPECT_TRUE(subscribes("/one"));
    EXPECT_FALSE(publishes("/service/x"));
    all.reset();
    EXPECT_TRUE(publishes("/one"));
    EXPECT_TRUE(publishes("/two"));
    const auto first = bus_.client;
    bus_.sink = std::make_shared<RecordingSink>();
    bus_.join(bus_.socket());
    EXPECT_FALSE(publishes("/one")) << "it is open to another client";
    one.reset();
    service.reset();
    EXPECT_TRUE(publishes("/one"));
    EXPECT_TRUE(publishes("/service/x"));
}

TEST_F(ChannelRulesTest, retainsByPatternWithinBytesAndOnlyForWhoMaySee)
{
    auto limits = bus_.server->limits();
    limits.retainedBytes = 3 * event("/state/1", "10").size();
    bus_.server->setLimits(limits);
    ChannelRule retain;
    retain.retain = true;
    auto rule = bus_.server->addRule("/state/**", retain);
    for (int n = 1; n <= 4; ++n)
        bus_.server->publish("/state/" + std::to_string(n), 10 + n);
    bus_.server->publish("/state/2", 22);
    EXPECT_EQ(bus_.server->counters().droppedRetained, 1u);
    const auto hidden = bus_.server->addRule("/state/4", closedTo(false, true));
    ASSERT_TRUE(subscribes("/state/*"));
    EXPECT_EQ(bus_.sink->take(),
              (std::vector<std::string>{"[" + event("/state/3", "13") + "]", "[" + event("/state/2", "22") + "]"}));
    rule.reset();
    rule = bus_.server->addRule("/state/**", retain);
    ASSERT_TRUE(subscribes("/state/**"));
    EXPECT_TRUE(bus_.sink->take().empty()) << "what a rule retained goes with it";
}

TEST_F(ChannelRulesTest, presenceByPatternIsForWhoMaySubscribe)
{
    ChannelRule presence;
    presence.presence = true;
    const auto rule = bus_.server->addRule("/room/*", presence);
    const auto closed = bus_.server->addRule("/room/closed", closedTo(false, true));
    ASSERT_TRUE(subscribes("/presence/**"));
    EXPECT_FALSE(subscribes("/presence/room/closed"));
    bus_.sink->take();
    ASSERT_TRUE(subscribes("/room/a"));
    const auto told = bus_.sink->take();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(normal(told[0]), normal("[" +
                                      event("/presence/room/a",
                                            R"({"event":"join","session":")" + publicId() + R"(","subscribers":1})") +
                                      "]"));
}

TEST_F(ChannelRulesTest, lazyByPatternAndNamesThatAreNone)
{
    ChannelRule lazy;
    lazy.lazy = true;
    const auto rule = bus_.server->addRule("/slow/**", lazy);
    ASSERT_TRUE(subscribes("/**"));
    bus_.server->publish("/slow/a", 1);
    EXPECT_TRUE(publishes("/slow/b"));
    EXPECT_TRUE(bus_.sink->take().empty());
    bus_.server->publish("/quick", 2);
    EXPECT_EQ(bus_.sink->take().size(), 1u) << "all three in one frame";
    for (const char* name : {"", "/", "a", "/a/*/b", "/meta/x", "/meta/**", "/a b"})
        EXPECT_THROW((void)bus_.server->addRule(name, lazy), std::invalid_argument) << name;
}

TEST_F(ChannelRulesTest, sessionsAreShownByTheirPublicIdsAndEnded)
{
    ASSERT_TRUE(subscribes("/a"));
    const auto described = bus_.server->describeSessions();
    ASSERT_EQ(described.size(), 1u);
    EXPECT_EQ(described[0].publicId, publicId());
    EXPECT_EQ(described[0].peerAddress, "127.0.0.1");
    EXPECT_EQ(described[0].subscriptions, std::vector<std::string>{"/a"});
    EXPECT_FALSE(bus_.server->endSession(bus_.client)) << "the secret id is no name";
    EXPECT_TRUE(bus_.server->endSession(described[0].publicId));
    EXPECT_FALSE(bus_.server->endSession(described[0].publicId));
    EXPECT_EQ(bus_.ask(Bus::kConnect, bus_.socket()).find(kJoined), std::string::npos);
}

} // namespace
} // namespace connector::bayeux
