#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "connector/core/ConnectorImpl2.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/information/InformationServiceProvider.h"
#include "connector/information/InformationWire.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonText.h"

namespace connector::information::v1 {
namespace {

namespace fs = std::filesystem;

class InformationTest : public testing::Test
{
protected:
    InformationTest()
    {
        connector->addServiceProvider("connector/v1/information", provider);
        fs::create_directories(folder / "home");
        std::ofstream(folder / "file") << "x";
    }
    ~InformationTest() override { fs::remove_all(folder); }

    /// The answer's JSON text, or the failure's text.
    std::string ask(const std::string& json, const std::shared_ptr<http::HttpSession>& session = nullptr)
    {
        auto context = connector->newContext();
        context->setHttpSession(session);
        context->setClientType("tablet");
        context->setTransport(session ? Context::Transport::webSocket : Context::Transport::process);
        try {
            return serializer->write(
                *connector->handle(serializer->read(json), Address{"connector/v1/information"}, std::move(context))
                     .get());
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
    }

    static std::string setHome(const std::string& path)
    {
        return R"({"type": "SetUserHomeDir", "path": ")" + path + "\"}";
    }

    const fs::path folder = fs::temp_directory_path() / ("information_test." + std::to_string(::getpid()));
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
    std::shared_ptr<http::HttpSessionManagerImpl> sessions = std::make_shared<http::HttpSessionManagerImpl>();
    std::shared_ptr<InformationServiceProviderImpl> provider =
        std::make_shared<InformationServiceProviderImpl>(sessions, nullptr);
    std::shared_ptr<json::JsonSerializerImpl> serializer = std::make_shared<json::JsonSerializerImpl>();
    InformationJsonSerialization types{serializer};
};

TEST_F(InformationTest, HomeFolderIsTheSessionsOrTheProcesses)
{
    const auto first = sessions->create()->session;
    const auto second = sessions->create()->session;
    const std::string home = fs::canonical(folder / "home").native();
    const std::string root = "{\"path\":\"/\",\"type\":\"GetUserHomeDirResponse\"}";
    const std::string get = R"({"type": "GetUserHomeDir"})";
    const std::string before = ask(get);

    EXPECT_NE(ask(setHome((folder / "home/../home//").native()), first).find("\"" + home + "\""), std::string::npos);
    EXPECT_NE(ask(get, first).find("\"" + home + "\""), std::string::npos);
    EXPECT_EQ(ask(get, second), before);
    ask(setHome("/"));
    EXPECT_EQ(ask(get, second), root) << "without one of its own the process's";
    EXPECT_EQ(ask(get), root);
    EXPECT_NE(ask(get, first), root);
}

TEST_F(InformationTest, HomeFolderMustBeAFolder)
{
    const std::string before = ask(R"({"type": "GetUserHomeDir"})");
    for (const auto& [path, why] : std::vector<std::pair<std::string, std::string>>{
             {"", "not absolute"},
             {"home", "not absolute"},
             {(folder / "nothing").native(), "No such file"},
             {(folder / "file").native(), "not a folder"},
             {(folder / "file/x").native(), "Not a directory"},
             {(folder / "home").native() + "\\u0000", "holds a NUL"},
             {"/" + std::string(5'000, 'x'), "too long"},
         }) {
        const auto refused = ask(setHome(path));
        EXPECT_NE(refused.find(why), std::string::npos) << path << ": " << refused;
    }
    EXPECT_EQ(ask(R"({"type": "GetUserHomeDir"})"), before);
}

TEST_F(InformationTest, ClientIsToldWhatIsKnownOfIt)
{
    const auto created = sessions->create();
    ask(setHome("/"), created->session);
    const std::string get = R"({"type": "GetCurrentClientProperties"})";
    EXPECT_EQ(ask(get, created->session), R"({"clientType":"tablet","sessionId":")" + created->session->id() +
                                              R"(","transport":"webSocket","properties":{"userHomeDir":"/"},)"
                                              R"("type":"GetCurrentClientPropertiesResponse"})");
    EXPECT_EQ(ask(get, created->session).find(created->secret), std::string::npos);
    EXPECT_EQ(ask(get), R"({"clientType":"tablet","sessionId":"","transport":"process","properties":{},)"
                        R"("type":"GetCurrentClientPropertiesResponse"})");
}

TEST_F(InformationTest, ServicesAndFeaturesAreThoseThatRun)
{
    auto other = std::make_shared<InformationServiceProviderImpl>(nullptr, nullptr);
    for (const char* name : {"connector/v1/interpreter", "connector/http/session", "connector/v1/hitchhiker"})
        connector->addServiceProvider(name, other);
    const std::string features = ask(R"({"type": "EnabledFeatures"})");
    for (const char* part : {R"({"name":"hitchhiker","enabled":true})", R"({"name":"httpSessions","enabled":true})",
                             R"({"name":"evaluation","enabled":false})", R"({"name":"shadowFiles","enabled":false})"})
        EXPECT_NE(features.find(part), std::string::npos) << part << " in " << features;

    other->stop();
    EXPECT_EQ(ask(R"({"type": "EnabledFeatures"})").find("true"), std::string::npos);
    EXPECT_EQ(
        ask(R"({"type": "ServiceRegistryRequest"})"),
        R"({"services":[{"name":"connector/http/session","running":false},)"
        R"({"name":"connector/v1/hitchhiker","running":false},{"name":"connector/v1/information","running":true},)"
        R"({"name":"connector/v1/interpreter","running":false}],"type":"ServiceRegistryRequestResponse"})");
}

} // namespace
} // namespace connector::information::v1
