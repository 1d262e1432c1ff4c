#include "connector/security/HttpNonceServiceProvider.h"

#include <atomic>
#include <thread>

#include "connector/common/Log.h"
#include "connector/http/AccessToken.h"
#include "connector/security/NonceGeneratorHelper.h"
#include "connector/security/security_fixture.h"

namespace connector::security::v1 {
namespace {

using namespace std::chrono_literals;
using test::Fields;
using test::request;

class Guard : public test::SecurityTest
{
protected:
    void SetUp() override { addGuard(); }

    void addGuard()
    {
        connector->addServiceProvider("guard", std::make_shared<HttpNonceServiceProvider>(nonces, configuration));
    }

    /// Behind the guard are messages.
    std::unique_ptr<http::HttpResponse> ask(std::unique_ptr<http::HttpRequest> asked)
    {
        return send(std::move(asked), Address("guard", "behind"));
    }
    /// Behind the guard are files.
    std::unique_ptr<http::HttpResponse> askFile(const std::string& method, const std::string& target,
                                                const Fields& fields = {})
    {
        return send(request(method, target, fields), Address("guard", "connector/http/staticContent"));
    }
    std::unique_ptr<http::HttpResponse> ask(const std::string& method, const std::string& target,
                                            const Fields& fields = {})
    {
        return ask(request(method, target, fields));
    }

    std::string nonce() { return nonces->issue(kEntryPurpose, 60s); }

    /// What a browser has that entered.
    struct Entered
    {
        std::string cookie; ///< "name=value"
        std::string code;
    };
    Entered enterWithCode()
    {
        const auto answer = ask("GET", "/?nonce=" + nonce());
        const auto cookie = answer->headers.get("Set-Cookie");
        const auto location = answer->headers.get("Location");
        const std::string start = "/#entry=";
        EXPECT_TRUE(location.starts_with(start) && location.size() == start.size() + 64) << location;
        return {cookie.substr(0, cookie.find(';')), location.substr(start.size())};
    }
    std::string enter() { return enterWithCode().cookie; }
    /// The page's key of a browser that entered, "" when the code is worth none.
    std::string claim(const std::string& code)
    {
        return memberOf(*ask("POST", "/messageservice/entry", {{"Vendra-Entry", code}}), R"({"key":")");
    }
    std::string ticket(const std::string& key)
    {
        return memberOf(*ask("POST", "/messageservice/ticket", {{"Vendra-Page", key}}), R"({"ticket":")");
    }
    static std::string memberOf(const http::HttpResponse& answer, const std::string& start)
    {
        return answer.status == 200 && answer.body.starts_with(start) ? answer.body.substr(start.size(), 64) : "";
    }

    std::shared_ptr<NonceService> nonces = std::make_shared<NonceServiceImpl>();
    const std::string token = "Bearer " + http::AccessToken::ofProcess().text();
};

TEST_F(Guard, LetsABrowserInOnce)
{
    const std::string entry = "/ui/?a=1&nonce=" + nonce() + "&b=2";
    const auto first = ask("GET", entry);
    EXPECT_EQ(first->status, 303u);
    EXPECT_TRUE(first->headers.get("Location").starts_with("/ui/?a=1&b=2#entry=")) << first->headers.get("Location");
    EXPECT_EQ(first->headers.get("Cache-Control"), "no-store");
    EXPECT_EQ(first->headers.get("Referrer-Policy"), "no-referrer");
    const auto cookie = first->headers.get("Set-Cookie");
    const std::string start = "VENDRAACCESS_8080=";
    ASSERT_TRUE(cookie.starts_with(start)) << cookie;
    EXPECT_EQ(cookie.substr(start.size() + 64), "; Path=/; HttpOnly; SameSite=Strict");
    const std::string pair = cookie.substr(0, start.size() + 64);

    EXPECT_EQ(askFile("GET", "/ui/?a=1&b=2", {{"Cookie", "x=y; " + pair}})->status, 200u);
    EXPECT_EQ(ask("GET", entry)->status, 401u) << "used up";
    const auto again = ask("GET", entry, {{"Cookie", pair}});
    EXPECT_EQ(again->status, 303u) << "going back in the same browser";
    EXPECT_EQ(again->headers.count("Set-Cookie"), 0u);
    EXPECT_EQ(again->headers.get("Location"), "/ui/?a=1&b=2") << "a cookie alone gets no code";

    const auto other = nonce();
    const auto anew = ask("GET", "/?nonce=" + other, {{"Cookie", pair}});
    EXPECT_EQ(anew->status, 303u);
    EXPECT_TRUE(anew->headers.get("Location").starts_with("/#entry=")) << "the page may have lost its key";
    EXPECT_EQ(ask("GET", "/?nonce=" + other)->status, 401u) << "an address works once, whoever opens it";
}

TEST_F(Guard, BindsTheCookieToItsPort)
{
    auto secure = request("GET", "/?nonce=" + nonce());
    secure->secure = true;
    secure->localPort = 8443;
    const auto cookie = ask(std::move(secure))->headers.get("Set-Cookie");
    EXPECT_TRUE(cookie.starts_with("VENDRAACCESS_8443=")) << cookie;
    EXPECT_TRUE(cookie.ends_with("; Path=/; HttpOnly; SameSite=Strict; Secure")) << cookie;
    auto plain = request("GET", "/?nonce=" + nonce());
    plain->localPort = 0;
    EXPECT_TRUE(ask(std::move(plain))->headers.get("Set-Cookie").starts_with("VENDRAACCESS="));

    const auto secret = cookie.substr(18, 64);
    const auto statusAt = [&](std::uint16_t port, const std::string& name) {
        auto asked = request("GET", "/", {{"Cookie", name + "=" + secret}});
        asked->localPort = port;
        return send(std::move(asked), Address("guard", "connector/http/staticContent"))->status;
    };
    EXPECT_EQ(statusAt(8443, "VENDRAACCESS_8443"), 200u);
    EXPECT_EQ(statusAt(8080, "VENDRAACCESS_8443"), 401u);
    EXPECT_EQ(statusAt(8080, "VENDRAACCESS_8080"), 401u);
    EXPECT_EQ(statusAt(8443, "VENDRAACCESS"), 401u);
    EXPECT_EQ(statusAt(0, "VENDRAACCESS"), 401u);
}

TEST_F(Guard, AnswersAllButProofTheSame)
{
    const auto cookie = enter();
    const auto secret = cookie.substr(cookie.find('=') + 1);
    const auto reference = ask("GET", "/");
    EXPECT_EQ(reference->headers.get("WWW-Authenticate"), "Bearer");
    const std::string name = "VENDRAACCESS_8080=";
    const std::string text = http::AccessToken::ofProcess().text();
    struct Case
    {
        std::string method;
        std::string target;
        Fields fields;
    };
    const auto expired = nonces->issue(kEntryPurpose, 0s);
    const auto forUpload = nonces->issue("upload", 60s);
    const std::string good = nonce();
    const std::vector<Case> cases{
        {"POST", "/?nonce=" + good, {}},
        {"HEAD", "/?nonce=" + good, {}},
        {"GET", "/?nonce=" + good + "&nonce=" + good, {}},
        {"GET", "/?Nonce=" + good, {}},
        {"GET", "/?nonce=" + good + "0", {}},
        {"GET", "/?nonce=%20" + good.substr(0, 61), {}},
        {"GET", "/?nonce=" + std::string(64, '0'), {}},
        {"GET", "/?nonce=" + expired, {}},
        {"GET", "/?nonce=" + forUpload, {}},
        {"GET", "/?nonce=", {}},
        {"GET", "/?nonce=" + text, {}},
        {"GET", "/", {{"Cookie", name + std::string(64, '0')}}},
        {"GET", "/", {{"Cookie", name + secret + "0"}}},
        {"GET", "/", {{"Cookie", name + text}}},
        {"GET", "/", {{"Cookie", "VENDRAACCESS=" + secret}}},
        {"GET", "/", {{"Cookie", "VENDRASESSION_8080=" + secret}}},
        {"GET", "/", {{"Authorization", "Bearer " + secret}}},
        {"GET", "/", {{"Authorization", "Bearer "}}},
        {"GET", "/", {{"Authorization", "Bearer"}}},
        {"GET", "/", {{"Authorization", text}}},
        {"GET", "/", {{"Authorization", "Basic " + text}}},
        {"GET", "/", {{"Authorization", "Bearer " + text + "0"}}},
        {"GET", "/", {{"Authorization", "Bearer  " + text}}},
        {"GET", "/", {{"Authorization", token}, {"Authorization", token}}},
        {"POST", "/", {{"Vendra-Page", secret}}},
        {"POST", "/", {{"Vendra-Page", text}}},
        {"POST", "/", {{"Vendra-Page", good}}},
        {"POST", "/", {{"Vendra-Page", ""}}},
        {"POST", "/messageservice/ticket", {{"Cookie", cookie}}},
        {"POST", "/messageservice/entry", {{"Cookie", cookie}}},
        {"POST", "/messageservice/entry", {{"Vendra-Entry", good}}},
        {"POST", "/messageservice/entry", {{"Vendra-Entry", secret}}},
        {"GET", "/?ticket=" + good, {{"Upgrade", "websocket"}}},
        {"GET", "/?ticket=" + secret, {}},
    };
    for (const auto& [method, target, fields] : cases) {
        const auto answer = ask(method, target, fields);
        const std::string shown = method + " " + target + (fields.empty() ? "" : " " + fields[0].second);
        EXPECT_EQ(answer->status, 401u) << shown;
        EXPECT_EQ(answer->body, reference->body) << shown;
        EXPECT_EQ(answer->headers.fields(), reference->headers.fields()) << shown;
    }
    EXPECT_EQ(ask("GET", "/?nonce=" + good)->status, 303u) << "none of these used it up";
    EXPECT_TRUE(nonces->redeem(forUpload, "upload"));
    const auto json = ask("GET", "/", {{"Accept", "application/json"}});
    EXPECT_EQ(json->body, "{\"error\":\"" + reference->body + "\"}");
}

TEST_F(Guard, LeadsACookieToFilesOnly)
{
    const auto cookie = enter();
    struct Case
    {
        unsigned file;
        unsigned message;
        std::string method;
        Fields fields;
    };
    const std::pair<std::string, std::string> origin{"Origin", "http://localhost:8080"};
    const std::pair<std::string, std::string> upgrade{"Upgrade", "websocket"};
    const std::vector<Case> cases{
        {200, 401, "GET", {}},        {200, 401, "HEAD", {}},
        {401, 401, "OPTIONS", {}},    {401, 401, "POST", {}},
        {401, 401, "POST", {origin}}, {401, 401, "PUT", {origin}},
        {401, 401, "get", {}},        {401, 401, "DELETE", {origin}},
        {200, 401, "GET", {origin}},  {200, 401, "GET", {upgrade, origin}},
    };
    for (auto [file, message, method, fields] : cases) {
        fields.emplace_back("Cookie", cookie);
        const std::string shown = method + (fields.size() > 1 ? " " + fields[0].first : "");
        EXPECT_EQ(askFile(method, "/", fields)->status, file) << shown;
        EXPECT_EQ(behind->cookieOnly, file == 200) << shown;
        EXPECT_EQ(ask(method, "/", fields)->status, message) << shown;
        fields.back() = {"Authorization", token};
        EXPECT_EQ(ask(method, "/", fields)->status, 200u) << shown << " with the token";
        EXPECT_FALSE(behind->cookieOnly);
        behind->cookieOnly = false;
    }

    std::string junk = cookie;
    for (int i = 0; i < 300; ++i)
        junk.insert(0, "VENDRAACCESS_8080=" + std::string(64, 'f') + "; ");
    EXPECT_EQ(askFile("GET", "/", {{"Cookie", junk}})->status, 200u) << "others may set cookies of the name";
}

TEST_F(Guard, TakesThePagesKeyForEverything)
{
    const auto [cookie, code] = enterWithCode();
    EXPECT_EQ(claim(cookie.substr(cookie.find('=') + 1)), "");
    auto elsewhere = request("POST", "/messageservice/entry", {{"Vendra-Entry", code}});
    elsewhere->localPort = 8081;
    EXPECT_EQ(ask(std::move(elsewhere))->status, 401u) << "of another port";
    const auto key = claim(code);
    ASSERT_EQ(key.size(), 64u);
    EXPECT_EQ(claim(code), "") << "a code is worth one key";
    EXPECT_EQ(claim(enterWithCode().code).size(), 64u);
    for (const char* method : {"GET", "POST", "PUT"})
        EXPECT_EQ(ask(method, "/", {{"Vendra-Page", key}})->status, 200u) << method << ", without a cookie";
    EXPECT_EQ(ask("POST", "/", {{"Vendra-Page", key}, {"Vendra-Page", key}})->status, 401u);
    auto other = request("POST", "/", {{"Vendra-Page", key}});
    other->localPort = 8081;
    EXPECT_EQ(ask(std::move(other))->status, 401u);

    const Fields upgrade{{"Upgrade", "websocket"}, {"Origin", "http://localhost:8080"}, {"Cookie", cookie}};
    const auto first = ticket(key);
    ASSERT_EQ(first.size(), 64u);
    EXPECT_EQ(ask("POST", "/?ticket=" + first)->status, 401u);
    EXPECT_EQ(ask("HEAD", "/?ticket=" + first)->status, 401u);
    EXPECT_EQ(ask("GET", "/?x=1&ticket=" + first, upgrade)->status, 200u);
    EXPECT_EQ(ask("GET", "/?ticket=" + first, upgrade)->status, 401u) << "used up";
    EXPECT_EQ(ask("POST", "/messageservice/ticket", {{"Authorization", token}})->status, 200u);
    while (nonces->issue("upload", 60s).size() == 64)
        if (ask("POST", "/messageservice/ticket", {{"Vendra-Page", key}})->status == 503)
            break;
}

TEST_F(Guard, HelpsABrowserWhosePageHoldsAKey)
{
    const std::pair<std::string, std::string> shown{"Accept", "text/html,application/xhtml+xml,*/*;q=0.8"};
    const auto page = askFile("GET", "/", {shown});
    EXPECT_EQ(page->status, 401u);
    EXPECT_EQ(page->headers.get("Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(page->headers.get("Content-Security-Policy").find("default-src 'none'; script-src 'sha256-"),
              std::string::npos);
    EXPECT_NE(page->body.find("vendra --url"), std::string::npos);
    EXPECT_NE(askFile("GET", "/")->body.find("vendra --url"), std::string::npos);

    const auto cookie = enter();
    behind->status = 401; // files of the user's
    EXPECT_EQ(askFile("GET", "/mine/x.html", {shown, {"Cookie", cookie}})->body, page->body);
    EXPECT_EQ(askFile("GET", "/mine/x.png", {{"Cookie", cookie}})->body, askFile("GET", "/")->body);
    behind->status = 200;

    const auto key = claim(enterWithCode().code);
    const auto served = askFile("GET", "/?ticket=" + ticket(key), {shown});
    EXPECT_EQ(served->status, 200u);
    const auto made = served->headers.get("Set-Cookie");
    EXPECT_EQ(askFile("GET", "/x.js", {{"Cookie", made.substr(0, made.find(';'))}})->status, 200u)
        << "what the page loads";
    EXPECT_EQ(askFile("GET", "/?ticket=" + ticket(key), {shown, {"Cookie", cookie}})->headers.count("Set-Cookie"), 0u);
}

TEST_F(Guard, LetsNobodyEnterByANameThatOthersHad)
{
    const auto target = "/?nonce=" + nonce();
    auto asked = request("GET", target, {{"Accept", "text/html"}});
    asked->sharedHost = true;
    const auto refused = ask(std::move(asked));
    EXPECT_EQ(refused->status, 401u);
    EXPECT_EQ(refused->headers.get("Content-Type"), "text/plain; charset=utf-8");
    EXPECT_EQ(ask("GET", target)->status, 303u) << "it is not used up";
}

TEST_F(Guard, LetsProgramsGoOnToTheCleanUrl)
{
    for (const char* method : {"GET", "HEAD"}) {
        const auto answer = ask(method, "/x?nonce=abc&y=1", {{"Authorization", "bearer" + token.substr(6)}});
        EXPECT_EQ(answer->status, 303u);
        EXPECT_EQ(answer->headers.get("Location"), "/x?y=1");
    }
    EXPECT_EQ(ask("POST", "/x?nonce=abc", {{"Authorization", token}})->status, 200u);
}

TEST_F(Guard, GivesOneOfManyTheCookie)
{
    const auto target = "/?nonce=" + nonce();
    std::atomic<int> entered{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 100; ++i)
        threads.emplace_back([&] {
            const auto answer = ask("GET", target);
            entered += answer->status == 303 && answer->headers.count("Set-Cookie") == 1;
            refused += answer->status == 401 && answer->headers.count("Set-Cookie") == 0;
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(entered, 1);
    EXPECT_EQ(refused, 99);
}

TEST_F(Guard, KeepsSoManyBrowsers)
{
    configuration->set("security.maxBrowsers", std::int64_t{2});
    addGuard();
    const auto first = enter();
    const auto second = enter();
    EXPECT_EQ(askFile("GET", "/", {{"Cookie", first}})->status, 200u);
    const auto third = enter();
    EXPECT_EQ(askFile("GET", "/", {{"Cookie", second}})->status, 401u) << "the longest unused went";
    for (const auto& cookie : {first, third})
        EXPECT_EQ(askFile("GET", "/", {{"Cookie", cookie}})->status, 200u);
}

TEST(AccessGrants, EndWhenTheyAreNotUsed)
{
    AccessGrants ended(10, 0ms);
    EXPECT_FALSE(ended.use(ended.add(1), 1));
    AccessGrants grants(10, 1h);
    const auto secret = grants.add(1);
    EXPECT_TRUE(grants.use(secret, 1));
    EXPECT_FALSE(grants.use(secret, 11));
    EXPECT_FALSE(grants.use("1 " + secret, 1));
}

TEST_F(Guard, TakesTheAccessKey)
{
    const auto log = folder / "log";
    common::setLogDestination("file:" + log.string());
    const std::string key(40, 'k');
    configuration->set("security.accessKeyFile", file("key", key + "\n"));
    addGuard();
    EXPECT_EQ(ask("POST", "/", {{"Authorization", "Bearer " + key}})->status, 200u);
    EXPECT_EQ(ask("POST", "/", {{"Authorization", token}})->status, 200u);
    EXPECT_EQ(ask("POST", "/", {{"Authorization", "Bearer " + key + "k"}})->status, 401u);

    configuration->set("security.accessKeyFile", file("open", key, 0644));
    addGuard();
    EXPECT_EQ(ask("POST", "/", {{"Authorization", "Bearer " + key}})->status, 401u);
    EXPECT_EQ(ask("POST", "/", {{"Authorization", token}})->status, 200u);
    const auto cookie = enter();
    common::setLogDestination("");
    std::ifstream stream(log);
    const std::string logged{std::istreambuf_iterator<char>(stream), {}};
    EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 1) << logged;
    EXPECT_NE(logged.find("open is open to others"), std::string::npos) << logged;
    EXPECT_EQ(logged.find("kkkk"), std::string::npos) << logged;
}

} // namespace
} // namespace connector::security::v1
