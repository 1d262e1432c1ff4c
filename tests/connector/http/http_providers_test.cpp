#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "connector/administration/AdministrationImpl.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/configuration/ConfigurationServiceProviderImpl.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/http/AccessToken.h"
#include "connector/http/BrowserHost.h"
#include "connector/http/Cookies.h"
#include "connector/http/DiscoveryFile.h"
#include "connector/http/HttpCommandProvider.h"
#include "connector/http/HttpConstantServiceProvider.h"
#include "connector/http/HttpLocalHostFilterServiceProvider.h"
#include "connector/http/HttpManagerJsonSerialization.h"
#include "connector/http/HttpManagerServiceProviderImpl.h"
#include "connector/http/HttpPathFilterServiceProvider.h"
#include "connector/http/HttpResponseHeaderServiceProvider.h"
#include "connector/http/HttpRouterImpl.h"
#include "connector/http/HttpRouterServiceProvider.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/http/HttpSessionServiceProvider.h"
#include "connector/http/http_client.h"
#include "connector/json/JsonSerializerImpl.h"
#include "platform/fl/process.h"

namespace connector::http {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

/// The end of a chain: answers "served", with the session's id in a header.
class End final : public RestServiceProvider
{
public:
    unsigned status = 200;
    bool sharedHost = false; ///< of the last GET

protected:
    std::vector<std::string> methods() const override { return {"GET", "POST"}; }
    MessageFuture get(Request&& request, Address&&, std::shared_ptr<Context>&& context) override
    {
        sharedHost = request->sharedHost;
        return serve(*context);
    }
    MessageFuture post(Request&&, Address&&, std::shared_ptr<Context>&& context) override { return serve(*context); }

private:
    MessageFuture serve(const Context& context) const
    {
        auto response = std::make_unique<HttpResponse>(status, "text/plain", "served");
        if (context.httpSession())
            response->headers.add("Session", context.httpSession()->id());
        return makeReadyFuture(std::unique_ptr<Message>(std::move(response)));
    }
};

/// A connector with "end" and whatever a test adds.
struct Chain
{
    Chain() { connector->addServiceProvider("end", end); }

    std::unique_ptr<HttpResponse> send(std::unique_ptr<HttpRequest> request, Address address)
    {
        auto answer = connector->handle(std::move(request), std::move(address), connector->newContext()).get();
        return std::unique_ptr<HttpResponse>(&dynamic_cast<HttpResponse&>(*answer.release()));
    }

    std::shared_ptr<End> end = std::make_shared<End>();
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("test");
};

using Fields = std::vector<std::pair<std::string, std::string>>;

std::unique_ptr<HttpRequest> request(const std::string& method, const std::string& path, const Fields& fields = {})
{
    auto made = std::make_unique<HttpRequest>();
    made->method = method;
    made->path = made->target = path;
    made->authority = "localhost:8080";
    made->peerAddress = "127.0.0.1";
    made->localPort = 8080;
    for (const auto& [name, value] : fields)
        made->headers.add(name, value);
    return made;
}

TEST(HttpRouter, takesTheLongestRouteOfWholeSegments)
{
    const auto router = std::make_shared<HttpRouterImpl>(std::vector<std::pair<std::string, Address>>{
        {"/a", Address{"a"}}, {"/a/b/c", Address{"abc"}}, {"", Address{"all"}}});
    const auto found = [&](const std::string& path) { return toString(router->findAddress(path)); };
    const std::vector<std::pair<std::string, std::string>> cases{
        {"/a", "a"},
        {"/a/", "a"},
        {"/a/b", "a"},
        {"/a/b/cd", "a"},
        {"/a/b/c", "abc"},
        {"/a/b/c/", "abc"},
        {"/a/b/c/d", "abc"},
        {"/ab", "all"},
        {"/", "all"},
        {"/x/a", "all"},
        {"/a/b/c" + std::string(5'000, '/'), "abc"},
    };
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(found(path), expected) << path;

    router->removeRoute("/a");
    router->removeRoute("/unknown");
    router->addRoute("/a/b/c", Address{"new"});
    EXPECT_EQ(found("/a/b"), "all");
    EXPECT_EQ(found("/a/b/c"), "new");
    EXPECT_EQ(router->listRoutes().size(), 2u);
    router->removeRoute("");
    EXPECT_EQ(found("/x"), "");
    for (const char* path : {"a", "/", "/a/", "/a//b"})
        EXPECT_THROW(router->addRoute(path, Address{"x"}), std::invalid_argument) << path;
}

TEST(HttpRouter, providesRoutesForTheLifeOfAFamily)
{
    struct Routes final : HttpRouteProvider
    {
        explicit Routes(std::shared_ptr<HttpRouter> router) : HttpRouteProvider(std::move(router))
        {
            add("/x", Address{"connector/http/serviceUnavailable"});
        }
    };
    Chain chain;
    const auto router = std::make_shared<HttpRouterImpl>(std::vector<std::pair<std::string, Address>>{});
    chain.connector->addServiceProvider("router", std::make_shared<HttpRouterServiceProvider>(router));
    chain.connector->addServiceProvider("connector/http/serviceUnavailable",
                                        std::make_shared<HttpConstantServiceProvider>(503, ""));
    {
        const Routes routes(router);
        const auto response = chain.send(request("GET", "/x/y"), Address{"router"});
        EXPECT_EQ(response->status, 503u);
        EXPECT_EQ(response->body, "");
    }
    EXPECT_EQ(chain.send(request("GET", "/x/y"), Address{"router"})->status, 404u);
}

TEST(PathFilter, letsOnlyWhatPagesAreMadeOf)
{
    Chain chain;
    chain.connector->addServiceProvider(
        "filter", std::make_shared<HttpPathFilterServiceProvider>(HttpPathFilterServiceProvider::defaultWhiteList(),
                                                                  static_cast<unsigned short>(404), "File not found."));
    for (const std::string path :
         {"/", "/index.html", "/ui/", "/ui", "/ui/a.b/c.d.js", "/A.PNG", "/grüße/bild 1.svg", "/app-0123abcd.min.css"})
        EXPECT_EQ(chain.send(request("GET", path), Address{"filter", "end"})->status, 200u) << path;
    for (const std::string path : {"", "index.html", "/.git/config", "/.env", "/ui/.hidden/a.js", "/ui/..", "/../a.js",
                                   "/a.js.", "/a.py", "/a.js~", "/run.sh", "//a.js", "/a/.js", "/a.json/../b.key"}) {
        const auto refused = chain.send(request("GET", path), Address{"filter", "end"});
        EXPECT_EQ(refused->status, 404u) << path;
        EXPECT_EQ(refused->body, "File not found.");
    }
    // Long paths are decided, one way or the other, without backtracking through them.
    EXPECT_EQ(chain.send(request("GET", "/" + std::string(8'000, 'a') + "!"), Address{"filter", "end"})->status, 200u);
    std::string deep;
    for (int i = 0; i < 2'000; ++i)
        deep += "/a.";
    EXPECT_EQ(chain.send(request("GET", deep + "x.py"), Address{"filter", "end"})->status, 404u);
}

TEST(ResponseHeader, addsWhatTheAnswerDoesNotSayItself)
{
    Chain chain;
    chain.connector->addServiceProvider("headers", std::make_shared<HttpResponseHeaderServiceProvider>(
                                                       HttpResponseHeaderServiceProvider::defaultHeaderRules()));
    const auto sent = [&](const std::string& path) {
        return chain.send(request("GET", path), Address{"headers", "end"});
    };
    const auto page = sent("/index.html");
    EXPECT_EQ(page->headers.get("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(page->headers.get("Referrer-Policy"), "no-referrer");
    EXPECT_NE(page->headers.get("Content-Security-Policy").find("frame-ancestors 'none'"), std::string::npos);
    EXPECT_EQ(page->headers.get("Cache-Control"), "private, no-cache");
    EXPECT_EQ(page->headers.count("Cache-Control"), 1u);
    EXPECT_NE(sent("/app-0123abcd.js")->headers.get("Cache-Control").find("immutable"), std::string::npos);
    EXPECT_EQ(sent("/my-component.js")->headers.get("Cache-Control"), "private, no-cache");

    chain.connector->addServiceProvider(
        "constant", std::make_shared<HttpConstantServiceProvider>(static_cast<unsigned short>(503), ""));
    const auto constant = chain.send(request("GET", "/x"), Address{"headers", "constant"});
    EXPECT_EQ(constant->headers.get("Cache-Control"), "no-store") << "the answer's own field stays";
    EXPECT_EQ(constant->headers.count("Cache-Control"), 1u);
    EXPECT_EQ(constant->headers.get("X-Content-Type-Options"), "nosniff");
}

TEST(RestServiceProvider, answersByMethod)
{
    Chain chain;
    EXPECT_EQ(chain.send(request("HEAD", "/"), Address{"end"})->body, "served");
    const auto refused = chain.send(request("DELETE", "/"), Address{"end"});
    EXPECT_EQ(refused->status, 405u);
    EXPECT_EQ(refused->headers.get("Allow"), "GET, HEAD, POST, OPTIONS");
    EXPECT_EQ(chain.send(request("OPTIONS", "/"), Address{"end"})->status, 204u);
}

class LocalHostFilter : public ::testing::Test
{
protected:
    LocalHostFilter()
    {
        chain.connector->addServiceProvider(
            "filter", std::make_shared<HttpLocalHostFilterServiceProvider>(
                          configuration, HttpLocalHostFilterServiceProvider::defaultWhiteList(), 404, "Not Found."));
    }

    unsigned statusOf(std::unique_ptr<HttpRequest> asked)
    {
        return chain.send(std::move(asked), Address("filter", "end"))->status;
    }

    unsigned statusOfHost(const std::string& host)
    {
        auto asked = request("GET", "/");
        asked->authority = host;
        return statusOf(std::move(asked));
    }

    Chain chain;
    std::shared_ptr<configuration::ConfigurationImpl> configuration =
        std::make_shared<configuration::ConfigurationImpl>();
};

TEST_F(LocalHostFilter, answersForItsOwnNamesOnly)
{
    for (const char* host : {"localhost:8080", "LocalHost:8080", "127.0.0.1:8080", "[::1]:8080"})
        EXPECT_EQ(statusOfHost(host), 200u) << host;
    for (const char* host : {"", "localhost:8081", "localhost.evil.example:8080", "evil.example", "xlocalhost",
                             "127.0.0.1.x:8080", "127a0b0c1:8080", "0.0.0.0:8080", "0.0.0.0", "[::]:8080", "127.1:8080",
                             "2130706433:8080", "localhost:", "localhost", "127.0.0.1", "[::1]"})
        EXPECT_EQ(statusOfHost(host), 421u) << host;

    configuration->set("http.allowedHosts", std::vector<std::string>{"lab.example", "proxy.example:443"});
    for (const char* host : {"lab.example", "Lab.Example:99", "proxy.example:443", "localhost:8080"})
        EXPECT_EQ(statusOfHost(host), 200u) << host;
    for (const char* host : {"lab.example.org", "proxy.example", "proxy.example:8080"})
        EXPECT_EQ(statusOfHost(host), 421u) << host;
    configuration->unset("http.allowedHosts");
    EXPECT_EQ(statusOfHost("lab.example"), 421u);
}

TEST_F(LocalHostFilter, answersForTheNameThatBrowsersKnowTheProcessBy)
{
    const auto& name = browserHost();
    EXPECT_EQ(name.size(), std::string("vendra-.localhost").size() + 32);
    for (const std::string& host : {name, name + ":8080", name + ":1", "V" + name.substr(1) + ":8080"})
        EXPECT_EQ(statusOfHost(host), 200u) << host;
    std::string another = name;
    another[10] = another[10] == '0' ? '1' : '0';
    for (const std::string& host : {another, name + ".", "x" + name, "x." + name, name.substr(0, name.size() - 10)})
        EXPECT_EQ(statusOfHost(host), 421u) << host;

    configuration->set("http.allowedHosts", std::vector<std::string>{"lab.example", "localhost:9000"});
    const auto isShared = [&](const std::string& host) {
        auto asked = request("GET", "/");
        asked->authority = host;
        EXPECT_EQ(chain.send(std::move(asked), Address("filter", "end"))->status, 200u) << host;
        return chain.end->sharedHost;
    };
    for (const char* host : {"localhost:8080", "127.0.0.1:8080", "[::1]:8080"})
        EXPECT_TRUE(isShared(host)) << host;
    for (const std::string& host : {name + ":8080", std::string("lab.example"), std::string("localhost:9000")})
        EXPECT_FALSE(isShared(host)) << host;
}

TEST_F(LocalHostFilter, tellsWhoComesThroughATunnelWhatToDo)
{
    const auto textFor = [&](const std::string& host) {
        auto asked = request("GET", "/");
        asked->authority = host;
        return chain.send(std::move(asked), Address("filter", "end"))->body;
    };
    EXPECT_EQ(textFor("localhost:9000"), "This server does not answer for the host localhost:9000. "
                                         "Through a tunnel, use the same port at both ends.");
    EXPECT_EQ(textFor("evil.example"), "This server does not answer for the host evil.example.");
}

TEST_F(LocalHostFilter, wantsThePortUnlessItGoesWithoutSaying)
{
    struct Case
    {
        unsigned status;
        std::string host;
        std::uint16_t port;
        bool secure;
        std::string peer;
    };
    const std::string local = "127.0.0.1";
    const std::vector<Case> cases{
        {200, "localhost", 80, false, local},       {421, "localhost", 80, true, local},
        {200, "localhost", 443, true, local},       {421, "localhost", 443, false, local},
        {200, "localhost:443", 443, true, local},   {421, "localhost", 8080, true, local},
        {200, "localhost", 0, false, local},        {200, "localhost:7", 0, false, local},
        {200, "localhost", 8080, false, "unix"},    {200, "localhost", 0, false, "unix"},
        {421, "localhost:81", 8080, false, "unix"}, {421, "evil.example", 0, false, "unix"},
        {404, "localhost", 80, false, "unix2"},
    };
    for (const auto& [status, host, port, secure, peer] : cases) {
        auto asked = request("GET", "/");
        asked->authority = host;
        asked->localPort = port;
        asked->secure = secure;
        asked->peerAddress = peer;
        EXPECT_EQ(statusOf(std::move(asked)), status) << host << " on " << port << " from " << peer;
    }
}

TEST_F(LocalHostFilter, letsAllowedPeersPass)
{
    const auto statusOfPeer = [&](const std::string& peer) {
        auto asked = request("GET", "/");
        asked->peerAddress = peer;
        return statusOf(std::move(asked));
    };
    configuration->set("http.allowedPeers",
                       std::vector<std::string>{"10.1.2.3", "192.168.4.7/22", "fd00:1::/33", "2001:db8::5",
                                                "172.16.0.0/", "172.16.0.0/33", "172.16.0.0/-1", "172.16.0.0/8x",
                                                "172.16/12", "x", "", "fe80::/129", "/0"});
    for (const char* peer : {"10.1.2.3", "::ffff:10.1.2.3", "192.168.4.0", "192.168.7.255", "::ffff:192.168.5.5",
                             "fd00:1::1", "fd00:1:7fff::1", "2001:db8::5", "127.0.0.1"})
        EXPECT_EQ(statusOfPeer(peer), 200u) << peer;
    for (const char* peer : {"10.1.2.4", "::10.1.2.3", "192.168.3.255", "192.168.8.0", "fd00:1:8000::1", "fd00:2::1",
                             "2001:db8::6", "172.16.0.1", "fe80::1", "", "x"})
        EXPECT_EQ(statusOfPeer(peer), 404u) << peer;
    configuration->set("http.allowedPeers", std::vector<std::string>{"0.0.0.0/0"});
    EXPECT_EQ(statusOfPeer("8.8.8.8"), 200u);
    EXPECT_EQ(statusOfPeer("2001:db8::5"), 404u) << "of the other family";
    configuration->unset("http.allowedPeers");
    EXPECT_EQ(statusOfPeer("8.8.8.8"), 404u);
}

TEST_F(LocalHostFilter, hidesFromOtherMachines)
{
    for (const char* peer : {"127.9.9.9", "::1", "::ffff:127.0.0.1"}) {
        auto asked = request("GET", "/");
        asked->peerAddress = peer;
        EXPECT_EQ(statusOf(std::move(asked)), 200u) << peer;
    }
    for (const char* peer : {"10.0.0.1", "128.0.0.1", "::2", "::ffff:10.0.0.1", "", "localhost"}) {
        auto asked = request("GET", "/");
        asked->peerAddress = peer;
        const auto response = chain.send(std::move(asked), Address("filter", "end"));
        EXPECT_EQ(response->status, 404u) << peer;
        EXPECT_EQ(response->body, "Not Found.");
    }
}

TEST_F(LocalHostFilter, refusesForeignPages)
{
    struct Case
    {
        unsigned status;
        std::string method;
        std::string path;
        Fields fields;
    };
    const std::string site = "Sec-Fetch-Site";
    const Fields navigation{{site, "cross-site"}, {"Sec-Fetch-Mode", "navigate"}, {"Sec-Fetch-Dest", "document"}};
    const Fields frame{{site, "cross-site"}, {"Sec-Fetch-Mode", "navigate"}, {"Sec-Fetch-Dest", "iframe"}};
    const std::vector<Case> cases{
        {200, "POST", "/x", {{"Origin", "http://localhost:8080"}}},
        {403, "POST", "/x", {{"Origin", "http://localhost:8081"}}},
        {403, "POST", "/x", {{"Origin", "http://localhost"}}},
        {403, "POST", "/x", {{"Origin", "https://localhost:8080"}}},
        {403, "POST", "/x", {{"Origin", "http://127.0.0.1:8080"}}},
        {403, "POST", "/x", {{"Origin", "http://localhost:8080.evil.example"}}},
        {403, "POST", "/x", {{"Origin", "http://evil.example"}}},
        {403, "GET", "/", {{"Origin", "null"}}},
        {403, "GET", "/", {{"Origin", ""}}},
        {403, "GET", "/", {{"Origin", "http://localhost:8080"}, {"Origin", "http://evil.example"}}},
        {200, "POST", "/x", {{site, "same-origin"}}},
        {200, "GET", "/x", {{site, "none"}}},
        {403, "GET", "/x", {{site, "cross-site"}}},
        {403, "GET", "/x", {{site, "same-site"}}},
        {403, "GET", "/x", {{site, "something"}}},
        {200, "GET", "/", navigation},
        {200, "GET", "/ui/index.html", navigation},
        {403, "GET", "/x", navigation},
        {403, "POST", "/", navigation},
        {403, "GET", "/", frame},
    };
    for (const auto& [status, method, path, fields] : cases) {
        std::string text = method + " " + path;
        for (const auto& [name, value] : fields)
            text += "; " + name + ": " + value;
        EXPECT_EQ(statusOf(request(method, path, fields)), status) << text;
    }
}

class Sessions : public ::testing::Test
{
protected:
    Sessions()
    {
        chain.connector->addServiceProvider("session", std::make_shared<HttpSessionServiceProvider>(manager));
    }

    std::unique_ptr<HttpResponse> send(const Fields& fields)
    {
        return chain.send(request("POST", "/", fields), Address("session", "end"));
    }

    Chain chain;
    std::shared_ptr<HttpSessionManager> manager = std::make_shared<HttpSessionManagerImpl>();
};

TEST_F(Sessions, knowsAClientByItsCookie)
{
    const auto first = send({});
    const std::string cookie = first->headers.get("Set-Cookie");
    ASSERT_EQ(cookie.find("VENDRASESSION_8080="), 0u);
    EXPECT_NE(cookie.find("; Path=/; HttpOnly; SameSite=Strict"), std::string::npos);
    const std::string pair = cookie.substr(0, cookie.find(';'));
    EXPECT_GE(pair.size() - 19, 32u) << "at least 128 bits";

    const auto second = send({{"Cookie", "a=b; " + pair}});
    EXPECT_EQ(second->headers.get("Session"), first->headers.get("Session"));
    EXPECT_EQ(second->headers.count("Set-Cookie"), 0u);
    const auto third = send({{"Cookie", "VENDRASESSION_8080=" + first->headers.get("Session")}});
    EXPECT_NE(third->headers.get("Session"), first->headers.get("Session")) << "the id is no secret";
    const auto fourth =
        send({{"Cookie", "VENDRASESSION" + pair.substr(18) + "; VENDRASESSION_8081" + pair.substr(18)}});
    EXPECT_NE(fourth->headers.get("Session"), first->headers.get("Session")) << "of other ports";
    EXPECT_EQ(manager->size(), 3u);

    manager->end(first->headers.get("Session"));
    EXPECT_NE(send({{"Cookie", pair}})->headers.get("Session"), first->headers.get("Session"));
}

TEST_F(Sessions, makesNoneForProgramsFilesAndRefusals)
{
    for (const char* method : {"GET", "HEAD"})
        EXPECT_EQ(chain.send(request(method, "/", {}), Address("session", "end"))->headers.count("Set-Cookie"), 0u);
    EXPECT_EQ(send({{"Authorization", "bearer x"}})->headers.count("Session"), 0u);
    chain.end->status = 401;
    EXPECT_EQ(send({})->headers.count("Set-Cookie"), 0u);
    chain.connector->removeServiceProvider("end");
    EXPECT_THROW(send({}), UnknownServiceProvider);
    EXPECT_EQ(manager->size(), 0u);
}

TEST_F(Sessions, areBounded)
{
    EXPECT_EQ(send({})->headers.count("Session"), 1u);
    manager->setLimits(1h, 2);
    EXPECT_EQ(send({})->headers.count("Session"), 1u);
    const auto third = send({});
    EXPECT_EQ(third->body, "served") << "without a session";
    EXPECT_EQ(third->headers.count("Session") + third->headers.count("Set-Cookie"), 0u);

    const auto session = HttpSessionManagerImpl().create()->session;
    for (int i = 0; i < 100; ++i)
        session->setProperty(std::to_string(i), "x");
    session->setProperty("99", "y");
    EXPECT_THROW(session->setProperty("100", "x"), std::length_error);
    EXPECT_THROW(session->setProperty("1", std::string(65'537, 'x')), std::length_error);
    session->removeProperty("1");
    EXPECT_EQ(session->property("99"), "y");
    EXPECT_EQ(session->property("1"), std::nullopt);
}

TEST(HttpSessionManager, endsIdleSessions)
{
    struct Listener final : HttpSessionListener
    {
        void sessionCreated(const std::shared_ptr<HttpSession>&) override { ++created; }
        void sessionEnded(const std::shared_ptr<HttpSession>& session) override { over += session->isOver() ? 1 : 100; }
        std::atomic<int> created{0};
        std::atomic<int> over{0};
    };
    const auto manager = std::make_shared<HttpSessionManagerImpl>();
    const auto listener = std::make_shared<Listener>();
    manager->addListener(listener);
    manager->setLimits(20ms, 10);
    const auto created = manager->create();
    const auto ended = manager->create();
    manager->end(ended->session->id());
    EXPECT_EQ(listener->created, 2);
    EXPECT_EQ(listener->over, 1);
    EXPECT_TRUE(test::eventually([&] { return manager->size() == 0; }));
    EXPECT_TRUE(test::eventually([&] { return listener->over == 2; }));
    EXPECT_TRUE(created->session->isOver());
    EXPECT_EQ(manager->find(created->secret), nullptr);
}

TEST(Cookies, areReadAsBrowsersWriteThem)
{
    Headers headers;
    headers.add("Cookie", "a=1; ab=2;a = \"3\" ; b; =4;a=;A=5");
    headers.add("cookie", "a=6; a=7");
    const std::vector<std::string_view> expected{"1", "3", "", "6", "7"};
    EXPECT_EQ(cookieValues(headers, "a"), expected);
}

TEST(Headers, takeNothingThatBreaksAMessage)
{
    Headers headers;
    for (const auto& [name, value] : Fields{{"", "x"},
                                            {"a b", "x"},
                                            {"a:", "x"},
                                            {"\xc3\xa4", "x"},
                                            {"a", "x\r\nb: c"},
                                            {"a", "x\n"},
                                            {"a", std::string("\0", 1)}}) {
        EXPECT_THROW(headers.add(name, value), std::invalid_argument);
        EXPECT_THROW(headers.set(name, value), std::invalid_argument);
    }
    headers.add("Set-Cookie", "a");
    headers.add("set-cookie", "b");
    EXPECT_EQ(headers.count("SET-COOKIE"), 2u);
    headers.set("Set-cookie", "c");
    EXPECT_EQ(headers.get("set-cookie"), "c");
    EXPECT_EQ(headers.fields().size(), 1u);
}

/// A folder of its own, which $XDG_RUNTIME_DIR names.
class RuntimeFolder
{
public:
    RuntimeFolder()
    {
        std::string name = fs::temp_directory_path() / "http-test-XXXXXX";
        path = ::mkdtemp(name.data());
        ::setenv("XDG_RUNTIME_DIR", path.c_str(), 1);
    }
    ~RuntimeFolder() { fs::remove_all(path); }

    fs::path path;
};

std::string contentOf(const fs::path& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(DiscoveryFile, tellsItsOwnerOnly)
{
    const RuntimeFolder runtime;
    const auto ticks = fl::process::startTicks(::getpid());
    ASSERT_TRUE(ticks);
    EXPECT_LE(std::abs(fl::process::startSeconds(*ticks) - std::time(nullptr)), 3'600)
        << "this test runs for a short while";
    fs::path path;
    {
        const DiscoveryFile file({"http://127.0.0.1:1/", "abc", "f00d"});
        path = file.path();
        EXPECT_EQ(path, runtime.path / "vendra" / (std::to_string(::getpid()) + ".json"));
        EXPECT_EQ(contentOf(path), R"({"url":"http://127.0.0.1:1/","pid":)" + std::to_string(::getpid()) +
                                       ",\"started\":" + std::to_string(fl::process::startSeconds(*ticks)) +
                                       ",\"startTicks\":" + std::to_string(*ticks) +
                                       ",\"token\":\"abc\",\"fingerprint\":\"f00d\"}\n");
        struct stat status
        {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        ASSERT_EQ(::stat(path.parent_path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0700u);
    }
    EXPECT_FALSE(fs::exists(path));

    const auto refusal = [&] {
        try {
            const DiscoveryFile file({"u", "t", ""});
            return std::string("made");
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
    };
    const std::string folder = (runtime.path / "vendra").string();
    fs::permissions(folder, fs::perms::others_write, fs::perm_options::add);
    EXPECT_EQ(refusal(), "Discovery file: " + folder + " can be written by others");
    fs::remove(folder);
    fs::create_directory_symlink(runtime.path, folder);
    EXPECT_EQ(refusal(), "Discovery file: " + folder + " is not a folder");
}

TEST(DiscoveryFile, outlivesTheOneThatItReplaced)
{
    const RuntimeFolder runtime;
    auto first = std::make_unique<DiscoveryFile>(DiscoveryContent{"u", "t", ""});
    auto second = std::make_unique<DiscoveryFile>(DiscoveryContent{"v", "t", ""});
    first.reset();
    EXPECT_TRUE(contentOf(second->path()).starts_with("{\"url\":\"v\""));
    const fs::path path = second->path();
    second.reset();
    EXPECT_FALSE(fs::exists(path));
}

TEST(DiscoveryFile, removesWhatOthersLeftBehind)
{
    const RuntimeFolder runtime;
    const fs::path folder = runtime.path / "vendra";
    fs::create_directory(folder);
    fs::permissions(folder, fs::perms::owner_all);
    const auto write = [&](const std::string& name, const std::string& text) { std::ofstream(folder / name) << text; };
    const pid_t gone = ::fork();
    if (gone == 0)
        ::_exit(0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    const std::string parent = std::to_string(::getppid());
    const std::string parentStart = std::to_string(fl::process::startTicks(::getppid()).value());
    const std::string dead = std::to_string(gone);
    const std::string own = std::to_string(::getpid());

    write(dead + ".json", "{}");
    write("1.json", R"({"startTicks":99999999999})");
    write(parent + ".json", R"({"startTicks":)" + parentStart + "}");
    write(own + ".json", R"({"url":"of a process that had the number before"})");
    write("." + dead + ".json", "");
    write(dead + ".txt", "");
    write("x" + dead + ".json", "");
    write("-" + dead + ".json", "");
    fs::create_directory(folder / "999999999.json");
    const DiscoveryFile file({"u", "t", ""});

    std::set<std::string> left;
    for (const auto& entry : fs::directory_iterator(folder))
        left.insert(entry.path().filename());
    EXPECT_EQ(left, (std::set<std::string>{own + ".json", parent + ".json", "." + dead + ".json", dead + ".txt",
                                           "x" + dead + ".json", "-" + dead + ".json", "999999999.json"}));
    EXPECT_TRUE(contentOf(file.path()).starts_with("{\"url\":\"u\""));
    write(parent + ".json", "not json");
    const DiscoveryFile again({"u", "t", ""});
    EXPECT_TRUE(fs::exists(folder / (parent + ".json"))) << "its process runs";
}

TEST(AccessToken, matchesItselfOnly)
{
    const AccessToken& token = AccessToken::ofProcess();
    EXPECT_EQ(token.text().size(), 64u);
    EXPECT_TRUE(token.matches(token.text()));
    EXPECT_FALSE(token.matches(""));
    EXPECT_FALSE(token.matches(token.text() + "0"));
    EXPECT_FALSE(token.matches(token.text().substr(1)));
}

/// The whole way from the socket to a provider.
TEST(HttpManager, opensPortsAndHandsRequestsToTheRouter)
{
    const RuntimeFolder runtime;
    Chain chain;
    const auto configuration = std::make_shared<configuration::ConfigurationImpl>();
    configuration->set("http.maxBodyBytes", std::int64_t{10});
    chain.connector->addServiceProvider(
        "connector/configuration", std::make_shared<configuration::ConfigurationServiceProviderImpl>(configuration));
    chain.connector->addServiceProvider(
        "connector/http/router",
        std::make_shared<HttpRouterServiceProvider>(std::make_shared<HttpRouterImpl>(
            std::vector<std::pair<std::string, Address>>{{"", Address{"end"}}, {"/lost", Address{"connector/lost"}}})));
    const auto administration = std::make_shared<administration::AdministrationImpl>();
    const HttpCommandProvider commands(chain.connector, administration, Address{"connector/http/manager"});
    const auto run = [&](const std::string& name, std::vector<std::string> arguments = {}) {
        return administration->execute(name, std::move(arguments)).get();
    };
    chain.connector->addServiceProvider("connector/http/manager",
                                        std::make_shared<HttpManagerServiceProviderImpl>(chain.connector));

    const std::string listed = run("http.ports");
    const auto port = static_cast<std::uint16_t>(std::stoul(listed));
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
    EXPECT_EQ(listed, std::to_string(port) + " " + url + "\n");
    test::WireClient client(port);
    EXPECT_EQ(client.ask("GET /x HTTP/1.1\r\nHost: localhost\r\n\r\n").body, "served");
    EXPECT_EQ(client.ask("GET /lost HTTP/1.1\r\nHost: localhost\r\n\r\n").status, 503u);
    EXPECT_TRUE(client.isClosed()) << "nobody let it in";
    EXPECT_EQ(test::WireClient(port).ask("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 11\r\n\r\n").status,
              413u);

    const fs::path discovery = runtime.path / "vendra" / (std::to_string(::getpid()) + ".json");
    EXPECT_NE(contentOf(discovery).find("{\"url\":\"" + url + "\""), std::string::npos);
    EXPECT_NE(contentOf(discovery).find(AccessToken::ofProcess().text()), std::string::npos);

    const std::string opened = run("http.open");
    const std::string second = opened.substr(opened.rfind(':') + 1, opened.rfind('/') - opened.rfind(':') - 1);
    EXPECT_EQ(run("http.close", {std::to_string(port)}), "Port " + std::to_string(port) + " is closed.\n");
    EXPECT_THROW(test::WireClient{port}, std::runtime_error);
    EXPECT_NE(contentOf(discovery).find(":" + second + "/\""), std::string::npos) << "the next port is announced";
    EXPECT_NE(run("http.counters").find("requests 0\n"), std::string::npos);
    for (const char* argument : {"0", "65536", "80x", "-1", ""})
        EXPECT_THROW(run("http.close", {argument}), std::invalid_argument) << argument;
    EXPECT_THROW(run("http.open", {second}), std::runtime_error);

    chain.connector->stop();
    EXPECT_FALSE(fs::exists(discovery));
    EXPECT_THROW(test::WireClient(static_cast<std::uint16_t>(std::stoul(second))), std::runtime_error);
    EXPECT_THROW(run("http.ports"), std::runtime_error);
    configuration->set("http.address", std::string("0.0.0.0"));
    EXPECT_THROW(chain.connector->start(), std::runtime_error) << "beyond this machine without TLS";
}

TEST(HttpManager, hasJsonForms)
{
    const auto serializer = std::make_shared<json::JsonSerializerImpl>();
    const HttpManagerJsonSerialization serialization(serializer);
    const auto opened = serializer->read(R"({"type":"OpenPort","port":8080})");
    EXPECT_EQ(dynamic_cast<const OpenPort&>(*opened).port, 8080);
    for (const char* text :
         {R"({"type":"OpenPort","port":65536})", R"({"type":"ClosePort"})", R"({"type":"ClosePort","port":"1"})"})
        EXPECT_THROW(serializer->read(text), json::JsonError) << text;
    ListPortsResponse response;
    response.ports.push_back({1, "http://127.0.0.1:1/"});
    const std::string text = serializer->write(response);
    EXPECT_NE(text.find(R"({"port":1,"url":"http://127.0.0.1:1/"})"), std::string::npos) << text;
}

} // namespace
} // namespace connector::http
