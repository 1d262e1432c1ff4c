#include <chrono>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "connector/administration/AdministrationImpl.h"
#include "connector/common/Log.h"
#include "connector/common/TickManager.h"
#include "connector/common_services/ConnectorCommandProvider.h"
#include "connector/common_services/EchoServiceProvider.h"
#include "connector/common_services/LoggingCommandProvider.h"
#include "connector/common_services/LoggingServiceProvider.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/configuration/ConfigurationJsonSerialization.h"
#include "connector/configuration/ConfigurationServiceProviderImpl.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonSerializerServiceProvider.h"

namespace connector::common_services {
namespace {

using common::LogLevel;
using configuration::ConfigurationImpl;

class CommonServices : public testing::Test
{
protected:
    std::string execute(const std::string& name, std::vector<std::string> arguments)
    {
        try {
            return administration->execute(name, std::move(arguments)).get();
        } catch (const std::exception& error) {
            return std::string("failed: ") + error.what();
        }
    }

    const std::shared_ptr<ConfigurationImpl> configuration = std::make_shared<ConfigurationImpl>();
    const std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    const std::shared_ptr<administration::AdministrationImpl> administration =
        std::make_shared<administration::AdministrationImpl>();
};

TEST_F(CommonServices, EchoAnswersWithTheSameObject)
{
    connector->addServiceProvider("echo", std::make_shared<EchoServiceProvider>());
    const auto echo = [this](std::unique_ptr<Message> message) {
        return connector->handle(std::move(message), Address{"echo"}, connector->newContext());
    };
    auto message = std::make_unique<LogRecord>(LogLevel::info, "a", "b");
    const auto* sent = message.get();
    EXPECT_EQ(echo(std::move(message)).get().get(), sent);
    EXPECT_THROW(echo(nullptr).get(), std::invalid_argument);
    connector->stop();
    try {
        echo(std::make_unique<LogRecord>(LogLevel::info, "a", "b")).get();
        FAIL() << "stopped";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Service exists but is not running.");
    }
}

TEST_F(CommonServices, ConnectorCommands)
{
    const auto serializer = std::make_shared<json::JsonSerializerImpl>();
    const configuration::ConfigurationJsonSerialization types(serializer);
    const auto service = std::make_shared<configuration::ConfigurationServiceProviderImpl>(configuration);
    const auto deserializer = std::make_shared<json::JsonDeserializerServiceProvider>(serializer);
    connector->addServiceProvider("settings", service);
    connector->addServiceProvider("echo", std::make_shared<EchoServiceProvider>());
    connector->addServiceProvider("connector/json/serialize",
                                  std::make_shared<json::JsonSerializerServiceProvider>(serializer));
    connector->addServiceProvider("connector/json/deserialize", deserializer);
    const ConnectorCommandProvider commands(connector, administration);

    service->stop();
    EXPECT_EQ(execute("connector.list", {}), "connector/json/deserialize running\nconnector/json/serialize running\n"
                                             "echo running\nsettings stopped\n");
    service->start();
    const std::string question = R"({"type":"GetConfiguration","name":"http.port"})";
    const std::string answer = R"({"values":[{"name":"http.port","value":0,"source":"default",)"
                               R"("description":"The port to listen on; 0 is a free one"}],)"
                               R"("type":"ConfigurationValues"})";
    EXPECT_EQ(execute("connector.send", {"settings", question}), answer + "\n");

    EXPECT_EQ(execute("connector.send", {"nobody", question}),
              "failed: No service provider is registered as \"nobody\".");
    EXPECT_EQ(execute("connector.send", {"", question}).substr(0, 8), "failed: ");
    EXPECT_EQ(execute("connector.send", {"settings", "{"}).substr(0, 13), "failed: byte ");
    EXPECT_NE(execute("connector.send", {"connector/json/serialize", question}).find("Incorrect message type"),
              std::string::npos);
    EXPECT_EQ(execute("connector.send", {"settings"}), "failed: Usage: connector.send NAME JSON");
    EXPECT_EQ(execute("connector.list", {"all"}), "failed: Usage: connector.list");
}

TEST_F(CommonServices, LoggingCommands)
{
    const LoggingCommandProvider commands(administration);
    const auto levels = execute("log.level", {"info", "connector.http=debug"});
    EXPECT_EQ(levels.substr(0, 7), "* INFO\n");
    EXPECT_NE(levels.find("\nconnector.http.session DEBUG\n"), std::string::npos) << levels;
    EXPECT_EQ(execute("log.level", {}), levels);
    EXPECT_EQ(execute("log.level", {"connector.http=loud"}).substr(0, 8), "failed: ");
    EXPECT_EQ(execute("log.level", {}), levels) << "nothing changed";
    EXPECT_TRUE(common::isLogged("connector.http", LogLevel::debug));
    EXPECT_EQ(execute("log.destination", {"none"}), "");
    EXPECT_FALSE(common::isLogged("connector.http", LogLevel::error));
    EXPECT_EQ(execute("log.destination", {"printer"}).substr(0, 8), "failed: ");
    common::setLogDestination("");
    common::setLogSpecification("");
}

class ClientLog : public CommonServices
{
protected:
    ClientLog() { connector->addServiceProvider("log", provider); }
    ~ClientLog() override
    {
        connector->removeServiceProvider("log");
        common::TickManager::destructInstance();
    }

    bool write(LogLevel level, const std::string& text, const std::string& source = "page")
    {
        const auto answer =
            connector->handle(std::make_unique<LogRecord>(level, text, source), Address{"log"}, connector->newContext())
                .get();
        return dynamic_cast<const LogRecordResponse&>(*answer).written;
    }
    /// What was written after the time, of lines that end since the last call.
    std::vector<std::string> lines()
    {
        std::vector<std::string> found;
        std::istringstream text(out.str());
        out.str("");
        for (std::string line; std::getline(text, line);) {
            EXPECT_EQ(line.find("Z "), 23u) << line;
            found.push_back(line.substr(25));
        }
        return found;
    }

    std::ostringstream out;
    const std::shared_ptr<LoggingServiceProvider> provider =
        std::make_shared<LoggingServiceProvider>(configuration, "tests.log", out);
};

TEST_F(ClientLog, WritesOneLineForEachRecord)
{
    EXPECT_TRUE(write(LogLevel::error, "plain"));
    EXPECT_TRUE(write(LogLevel::info, "a\nb\r\t\x1b[31m\\ \x7f \xc2\x9b grün", "pa\nge"));
    EXPECT_TRUE(write(LogLevel::warning, "\xff.", ""));
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "ERROR tests.log: page: plain",
                           R"(INFO tests.log: pa\nge: a\nb\r\t\x1b[31m\\ \x7f \x9b grün)",
                           "WARNING tests.log: \xef\xbf\xbd.",
                       }));
    EXPECT_TRUE(write(LogLevel::info, std::string(4'095, 'x') + "ü!", std::string(300, 's')));
    EXPECT_EQ(lines().at(0), "INFO tests.log: " + std::string(256, 's') +
                                 " … (44 bytes more): " + std::string(4'095, 'x') + " … (3 bytes more)");
}

TEST_F(ClientLog, TakesTheLevelOfTheConfiguration)
{
    EXPECT_FALSE(write(LogLevel::debug, "x"));
    EXPECT_FALSE(write(LogLevel::off, "x"));
    configuration->setFromText("log.clientLevel", "trace");
    EXPECT_TRUE(write(LogLevel::trace, "x"));
    configuration->setFromText("log.clientLevel", "off");
    EXPECT_FALSE(write(LogLevel::error, "x"));
    common::setLogDestination("none");
    for (const char* text : {"", "loud", "debug,trace", "a=trace"}) {
        configuration->setFromText("log.clientLevel", text);
        EXPECT_TRUE(write(LogLevel::info, "x")) << text;
        EXPECT_FALSE(write(LogLevel::debug, "x")) << text;
    }
    common::setLogDestination("");
    EXPECT_EQ(lines().size(), 5u);
}

TEST_F(ClientLog, SaysHowManyRecordsWereLeftOut)
{
    configuration->setFromText("log.clientRecordsPerSecond", "3");
    int written = 0;
    for (int i = 0; i < 10; ++i)
        written += write(LogLevel::info, "x") ? 1 : 0;
    EXPECT_EQ(written, 3);
    provider->stop();
    const auto found = lines();
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found.back(), "WARNING tests.log: 7 records of clients were left out: there were more than "
                            "log.clientRecordsPerSecond in a second.");
    provider->start();
    EXPECT_TRUE(write(LogLevel::info, "x")) << "counted anew";
}

TEST_F(ClientLog, TakesOnlyRecords)
{
    EXPECT_THROW(
        connector->handle(std::make_unique<LogRecordResponse>(true), Address{"log"}, connector->newContext()).get(),
        std::invalid_argument);
    EXPECT_THROW(LoggingServiceProvider(nullptr, "x", out), std::invalid_argument);
}

} // namespace
} // namespace connector::common_services
