#include <Poco/JSON/Object.h>

#include "connector/http/AccessToken.h"
#include "connector/http/BrowserHost.h"
#include "connector/http/HttpRouterImpl.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonText.h"
#include "connector/security/NonceGeneratorHttpServiceProvider.h"
#include "connector/security/NonceJsonSerialization.h"
#include "connector/security/NonceServiceProviderImpl.h"
#include "connector/security/security_fixture.h"

namespace connector::security::v1 {
namespace {

using namespace std::chrono_literals;
using test::request;

class NonceProviders : public test::SecurityTest
{
protected:
    NonceProviders()
    {
        connector->addServiceProvider("generator",
                                      std::make_shared<NonceGeneratorHttpServiceProvider>(helper, configuration));
        connector->addServiceProvider("nonce", std::make_shared<NonceServiceProviderImpl>(nonces, helper));
    }

    /// The answer to a message of the wire as text, "! " and the failure's text otherwise.
    std::string say(const std::string& text)
    {
        try {
            auto answer = connector->handle(serializer->read(text), Address{"nonce"}, connector->newContext()).get();
            return serializer->write(*answer);
        } catch (const std::exception& error) {
            return std::string("! ") + error.what();
        }
    }

    const std::shared_ptr<NonceService> nonces = std::make_shared<NonceServiceImpl>();
    const std::shared_ptr<NonceGeneratorHelper> helper = std::make_shared<NonceGeneratorHelperImpl>(nonces);
    const std::shared_ptr<json::JsonSerializerImpl> serializer = std::make_shared<json::JsonSerializerImpl>();
    const NonceJsonSerialization serialization{serializer};
    const test::Fields token{{"Authorization", "Bearer " + http::AccessToken::ofProcess().text()}};
};

std::string member(const std::string& text, const std::string& name)
{
    return json::parse(text).extract<Poco::JSON::Object::Ptr>()->getValue<std::string>(name);
}

TEST_F(NonceProviders, GiveProgramsOneTimeAddresses)
{
    const auto post = [&](bool secure, const std::string& authority, const test::Fields& fields) {
        auto asked = request("POST", "/messageservice/nonce", fields);
        asked->secure = secure;
        asked->authority = authority;
        return send(std::move(asked), Address{"generator"});
    };
    configuration->set("security.entryLifeSeconds", std::int64_t{77});
    const auto answer = post(true, "[::1]:8443", token);
    EXPECT_EQ(answer->status, 200u);
    EXPECT_EQ(answer->headers.get("Content-Type"), "application/json");
    EXPECT_EQ(answer->headers.get("Cache-Control"), "no-store");
    const auto nonce = member(answer->body, "nonce");
    EXPECT_EQ(answer->body, "{\"nonce\":\"" + nonce + "\",\"url\":\"https://[::1]:8443/?nonce=" + nonce +
                                "\",\"expiresInSeconds\":77}");
    EXPECT_TRUE(nonces->redeem(nonce, "entry"));
    EXPECT_NE(post(false, "localhost:1", token)->body.find("\"http://localhost:1/?nonce="), std::string::npos);
    const auto urlUnderAnySharedName = [&](const std::string& authority, bool secure) {
        auto asked = request("POST", "/messageservice/nonce", token);
        asked->sharedHost = true;
        asked->secure = secure;
        asked->authority = authority;
        const auto url = member(send(std::move(asked), Address{"generator"})->body, "url");
        return url.substr(0, url.find('?'));
    };
    EXPECT_EQ(urlUnderAnySharedName("127.0.0.1:8080", false), "http://" + http::browserHost() + ":8080/");
    EXPECT_EQ(urlUnderAnySharedName("[::1]:9000", true), "https://" + http::browserHost() + ":9000/");
    EXPECT_EQ(urlUnderAnySharedName("localhost", false), "http://" + http::browserHost() + ":8080/")
        << "over a Unix-domain socket";

    const auto refused = post(false, "localhost:1", {{"Authorization", "Bearer x"}});
    for (std::size_t i = 5; i <= NonceServiceImpl::kMaxOutstanding; ++i)
        nonces->issue("upload", 60s);
    EXPECT_EQ(post(false, "localhost:1", token)->status, 503u) << "too many are out";
    EXPECT_EQ(refused->status, 401u);
    EXPECT_EQ(refused->headers.get("WWW-Authenticate"), "Bearer");
    EXPECT_EQ(refused->body, post(false, "localhost:1", {})->body);
    for (const char* method : {"GET", "HEAD", "PUT", "DELETE"})
        EXPECT_EQ(send(request(method, "/messageservice/nonce", token), Address{"generator"})->status, 405u) << method;
    EXPECT_EQ(send(request("OPTIONS", "/messageservice/nonce"), Address{"generator"})->headers.get("Allow"),
              "POST, OPTIONS");
}

TEST_F(NonceProviders, SpeakMessages)
{
    const auto nonce = member(say(R"({"type":"CreateNonce","purpose":"upload","lifeSeconds":86400})"), "nonce");
    const std::string redeem = R"({"type":"RedeemNonce","nonce":")" + nonce + R"(","purpose":")";
    EXPECT_EQ(say(redeem + "entry\"}"), R"({"valid":false,"type":"RedeemNonceResponse"})");
    EXPECT_EQ(say(redeem + "upload\"}"), R"({"valid":true,"type":"RedeemNonceResponse"})");
    EXPECT_EQ(say(redeem + "upload\"}"), R"({"valid":false,"type":"RedeemNonceResponse"})");
    const auto url = member(say(R"({"type":"CreateEntryUrl","baseUrl":"http://127.0.0.1:1"})"), "url");
    ASSERT_TRUE(url.starts_with("http://127.0.0.1:1/?nonce=")) << url;
    EXPECT_TRUE(nonces->redeem(url.substr(26), "entry"));

    const std::pair<const char*, const char*> cases[] = {
        {R"({"type":"CreateNonce","purpose":""})", "! A nonce needs a purpose."},
        {R"({"type":"CreateNonce","purpose":"p","lifeSeconds":0})", "! A nonce lives for 1 to 86400 seconds, not 0."},
        {R"({"type":"CreateEntryUrl","baseUrl":"http://x/","lifeSeconds":86401})",
         "! A nonce lives for 1 to 86400 seconds, not 86401."},
        {R"({"type":"CreateEntryUrl","baseUrl":"file:///x"})",
         "! The base URL \"file:///x\" does not begin with http:// or https://."},
        {R"({"type":"RedeemNonce","nonce":"","purpose":""})", "! A nonce needs a purpose."},
        {R"({"type":"RedeemNonce","nonce":"","purpose":"p"})", R"({"valid":false,"type":"RedeemNonceResponse"})"},
    };
    for (const auto& [text, answer] : cases)
        EXPECT_EQ(say(text), answer) << text;
    EXPECT_THROW(serializer->read(R"({"type":"CreateNonce"})"), json::JsonError);
}

} // namespace
} // namespace connector::security::v1
