#include "connector/bayeux/BusSettings.h"

#include <cstdlib>

#include "connector/bayeux/bayeux_fixture.h"
#include "connector/configuration/ConfigurationImpl.h"

namespace connector::bayeux {
namespace {

using namespace std::chrono_literals;

class BusSettingsTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        setenv("VENDRA_ROOT", "/nonexistent", 1);
        setenv("XDG_CONFIG_HOME", "/nonexistent", 1);
    }

    const std::shared_ptr<configuration::ConfigurationImpl> configuration_ =
        std::make_shared<configuration::ConfigurationImpl>();
    Bus bus_;
};

TEST_F(BusSettingsTest, defaultsOfTheKeysAreThoseOfTheServer)
{
    const BayeuxLimits expected;
    const auto limits = readBusLimits(*configuration_);
    EXPECT_EQ(limits.timeout, expected.timeout);
    EXPECT_EQ(limits.interval, expected.interval);
    EXPECT_EQ(limits.maxInterval, expected.maxInterval);
    EXPECT_EQ(limits.lazyDelay, expected.lazyDelay);
    EXPECT_EQ(limits.queueMessages, expected.queueMessages);
    EXPECT_EQ(limits.queueBytes, expected.queueBytes);
    EXPECT_EQ(limits.messageBytes, expected.messageBytes);
    EXPECT_EQ(limits.sessions, expected.sessions);
    EXPECT_EQ(limits.subscriptions, expected.subscriptions);
    EXPECT_EQ(limits.channels, expected.channels);
    EXPECT_EQ(limits.batch, expected.batch);
    EXPECT_EQ(limits.retainedBytes, expected.retainedBytes);
    EXPECT_EQ(limits.pollsOfOneBrowser, expected.pollsOfOneBrowser);
}

TEST_F(BusSettingsTest, changesTakeEffectAtOnceAndAreTakenBack)
{
    auto settings = std::make_unique<BusSettings>(configuration_, bus_.server);
    bus_.join(bus_.http());
    configuration_->set("bus.intervalSeconds", 0.5);
    configuration_->set("bus.holdSeconds", 2.0);
    const auto connected = bus_.ask(
        R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling","advice":{"timeout":0}}])");
    EXPECT_NE(connected.find(R"("interval":500,"reconnect":"retry","timeout":2000)"), std::string::npos) << connected;

    configuration_->set("bus.maxSubscriptions", std::int64_t{1});
    bus_.subscribe("/one", bus_.http());
    EXPECT_NE(bus_.ask(R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":"/two"}])").find("\"403\""),
              std::string::npos);
    configuration_->unset("bus.maxSubscriptions");
    bus_.subscribe("/two", bus_.http());

    configuration_->set("bus.maxMessageBytes", std::int64_t{8 << 20});
    EXPECT_EQ(bus_.server->limits().queueBytes, 8u << 20) << "a queue holds a message of the greatest size";

    configuration_->set("bus.hiddenChannels", std::vector<std::string>{"/secret/**", "no channel", "/meta/x"});
    EXPECT_NE(bus_.ask(R"([{"channel":"/secret/a","clientId":"$C","data":1}])").find("\"403\""), std::string::npos);
    configuration_->set("bus.hiddenChannels", std::vector<std::string>{});
    EXPECT_NE(bus_.ask(R"([{"channel":"/secret/a","clientId":"$C","data":1}])").find("true"), std::string::npos);

    settings.reset();
    configuration_->set("bus.maxMessageBytes", std::int64_t{2'048});
    EXPECT_EQ(bus_.server->limits().messageBytes, 8u << 20) << "what is gone follows no more";
}

} // namespace
} // namespace connector::bayeux
