#include "configuration_fixture.h"

#include "connector/administration/AdministrationImpl.h"
#include "connector/configuration/ConfigurationCommandProvider.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/configuration/ConfigurationJsonSerialization.h"
#include "connector/configuration/ConfigurationServiceProviderImpl.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/json/JsonSerializerImpl.h"

namespace {

using namespace connector;
using namespace connector::configuration;

class ConfigurationServices : public ConfigurationTest
{
protected:
    void SetUp() override
    {
        ConfigurationTest::SetUp();
        configuration_ = std::make_shared<ConfigurationImpl>();
        commands_ = std::make_unique<ConfigurationCommandProvider>(configuration_, administration_);
        connector_->addServiceProvider("configuration",
                                       std::make_shared<ConfigurationServiceProviderImpl>(configuration_));
    }

    std::string run(const std::string& command, std::vector<std::string> arguments)
    {
        try {
            return administration_->execute(command, std::move(arguments)).get();
        } catch (const std::invalid_argument& error) {
            return std::string("failed: ") + error.what();
        }
    }

    /// A request and its answer as clients see them.
    std::string ask(const std::string& request)
    {
        try {
            auto message = serializer_->read(request);
            const auto answer =
                connector_->handle(std::move(message), Address("configuration"), connector_->newContext()).get();
            return serializer_->write(*answer);
        } catch (const std::invalid_argument& error) {
            return std::string("failed: ") + error.what();
        }
    }

    std::shared_ptr<ConfigurationImpl> configuration_;
    std::shared_ptr<administration::AdministrationImpl> administration_ =
        std::make_shared<administration::AdministrationImpl>();
    std::unique_ptr<ConfigurationCommandProvider> commands_;
    std::shared_ptr<ConnectorImpl2> connector_ = std::make_shared<ConnectorImpl2>("test");
    std::shared_ptr<json::JsonSerializerImpl> serializer_ = std::make_shared<json::JsonSerializerImpl>();
    ConfigurationJsonSerialization serialization_{serializer_};
};

TEST_F(ConfigurationServices, Commands)
{
    EXPECT_EQ(run("configuration.set", {"http.allowedHosts", "a,b"}), "a, b");
    EXPECT_EQ(run("configuration.get", {"http.allowedHosts"}), "a, b");
    EXPECT_NE(run("configuration.list", {}).find("http.allowedHosts = a, b  (set; "), std::string::npos);
    EXPECT_EQ(run("configuration.unset", {"http.allowedHosts"}), "");
    EXPECT_EQ(run("configuration.get", {"x"}), "failed: There is no configuration key \"x\".");
    EXPECT_EQ(run("configuration.set", {"http.port"}),
              "failed: The command is configuration.set KEY VALUE; it got 1 arguments.");
    EXPECT_EQ(run("configuration.list", {"a"}), "failed: The command is configuration.list; it got 1 arguments.");
}

TEST_F(ConfigurationServices, Messages)
{
    const std::string port = R"({"name":"http.port","value":81,"source":"set",)"
                             R"("description":"The port to listen on; 0 is a free one"})";
    const std::string answer = R"({"values":[)" + port + R"(],"type":"ConfigurationValues"})";
    EXPECT_EQ(ask(R"({"type":"SetConfiguration","name":"http.port","value":81})"), answer);
    EXPECT_EQ(ask(R"({"type":"GetConfiguration","name":"http.port"})"), answer);
    EXPECT_NE(ask(R"({"type":"GetConfiguration"})").find(R"("name":"security.tokenFile","value":true)"),
              std::string::npos);
    EXPECT_NE(ask(R"({"type":"SetConfiguration","name":"http.allowedHosts","value":["a"]})").find(R"("value":["a"])"),
              std::string::npos);
    EXPECT_EQ(serializer_->write(*serializer_->read(answer)), answer);

    const std::pair<const char*, const char*> refused[] = {
        {R"({"type":"GetConfiguration","name":"http.prot"})", "There is no configuration key \"http.prot\"."},
        {R"({"type":"SetConfiguration","name":"http.port","value":"81"})",
         "The key http.port takes an integer, not text."},
        {R"({"type":"SetConfiguration","name":"http.port","value":{}})",
         "value: expected a string, a number, true or false or an array of strings but found an object"},
        {R"({"type":"SetConfiguration","name":"http.port"})", "value: expected a value but found nothing"},
        {R"({"type":"SetConfiguration","name":"security.tokenFile","value":false})",
         "The key security.tokenFile cannot be set by a message."},
    };
    for (const auto& [request, failure] : refused)
        EXPECT_EQ(ask(request), std::string("failed: ") + failure) << request;
    EXPECT_TRUE(configuration_->getBool("security.tokenFile"));
    EXPECT_EQ(configuration_->getInteger("http.port"), 81);
}

} // namespace
