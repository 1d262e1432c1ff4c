#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "connector/core/ConnectorImpl2.h"
#include "connector/core/ServiceFault.h"
#include "connector/http/PocoHttpClientServiceProvider.h"
#include "connector/http/PocoHttpsServer.h"
#include "connector/http/client/ProxySettings.h"
#include "connector/http/client/Url.h"
#include "connector/http/http_client.h"
#include "connector/http/test_server.h"

namespace connector::http {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using client::ProxySettings;
using client::Url;
using test::answer;
using test::Certificate;
using test::eventually;
using test::TestServer;
using Peer = TestServer::Peer;

std::size_t threadsOfClient()
{
    std::size_t count = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        count += name == "connector-work" ? 1 : 0;
    }
    return count;
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

/// A variable of the environment as long as this lives.
class Variable
{
public:
    Variable(const char* name, const std::string& value) : name_(name) { ::setenv(name, value.c_str(), 1); }
    ~Variable() { ::unsetenv(name_); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const char* name_;
};

class HttpClient : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "no_proxy", "NO_PROXY", "SSL_CERT_FILE"})
            ::unsetenv(name);
        PocoHttpsServer::initializeConnectorSSL();
        std::string name = (fs::temp_directory_path() / "clientXXXXXX").string();
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        folder_ = name;
        client_ = newClient();
    }
    void TearDown() override
    {
        client_->stop();
        fs::remove_all(folder_);
    }

    static std::shared_ptr<PocoHttpClientServiceProvider> newClient()
    {
        auto client = std::make_shared<PocoHttpClientServiceProvider>();
        client->start();
        return client;
    }

    /// Short of everything, since no test waits for a limit that is not its own.
    static std::unique_ptr<HttpClientRequest> request(const std::string& url)
    {
        auto made = std::make_unique<HttpClientRequest>(url);
        made->timeout = 8s;
        made->totalTimeout = 9s;
        return made;
    }

    HttpClientResponse get(std::unique_ptr<HttpClientRequest> request)
    {
        return client_->send(std::move(request), nullptr).get();
    }
    HttpClientResponse get(const std::string& url) { return get(request(url)); }

    /// The text of the failure; "" when there was none.
    std::string failure(std::unique_ptr<HttpClientRequest> request)
    {
        try {
            get(std::move(request));
            return "";
        } catch (const std::exception& error) {
            return error.what();
        }
    }
    std::string failure(const std::string& url) { return failure(request(url)); }

    std::size_t files() const { return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder_), {})); }

    fs::path folder_;
    std::shared_ptr<PocoHttpClientServiceProvider> client_;
};

std::string urlFailure(const std::string& url)
{
    try {
        return "taken: " + Url::parse(url).text();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

TEST(HttpClientUrl, takesHttpAndHttpsOnly)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {"HTTP://Example.COM", "taken: http://example.com/"},
        {"https://a:443?x=1#f", "taken: https://a/?x=1"},
        {"http://[::1]:8080/a//b", "taken: http://[::1]:8080/a//b"},
        {"file:///etc/passwd", "Not an http or https URL: \"file:///etc/passwd\""},
        {"ftp://a/?secret", "Not an http or https URL: \"ftp://a/\""},
        {"http:/a", "Not an http or https URL: \"http:/a\""},
        {"", "Not an http or https URL: \"\""},
        {"http://me:secret@a/", "User information in a URL: \"http://...@a/\""},
        {"http:///x", "URL without a host: \"http:///x\""},
        {"http://:80/", "URL without a host: \"http://:80/\""},
        {"http://a:0/", "No such host or port: \"http://a:0/\""},
        {"http://a:65536/", "No such host or port: \"http://a:65536/\""},
        {"http://a:8x/", "No such host or port: \"http://a:8x/\""},
        {"http://[::g]/", "No such host or port: \"http://[::g]/\""},
        {"http://a%2fb/", "No such host or port: \"http://a%2fb/\""},
        {"http://a/\r\nX: 1", "Character in a URL that must be percent-encoded: \"http://a/??X: 1\""},
        {"http://a\\b/", "Character in a URL that must be percent-encoded: \"http://a\\b/\""},
        {"http://a/ü", "Character in a URL that must be percent-encoded: \"http://a/??\""},
    };
    for (const auto& [url, expected] : cases)
        EXPECT_EQ(urlFailure(url), expected);
    EXPECT_TRUE(urlFailure("http://a/" + std::string(20'000, 'x')).starts_with("URL of more than")) << "bounded";
}

TEST(HttpClientUrl, resolvesReferences)
{
    const Url base = Url::parse("http://a:81/b/c/d?q");
    const std::vector<std::pair<std::string, std::string>> cases{
        {"g", "http://a:81/b/c/g"},
        {"./g/", "http://a:81/b/c/g/"},
        {"/g?x#y", "http://a:81/g?x"},
        {"//h", "http://h/"},
        {"?y", "http://a:81/b/c/d?y"},
        {"", "http://a:81/b/c/d?q"},
        {"..", "http://a:81/b/"},
        {"../../../g", "http://a:81/g"},
        {"#s", "http://a:81/b/c/d?q"},
        {"https://h:443/%41", "https://h/%41"},
        {"a b/ü", "http://a:81/b/c/a%20b/%C3%BC"},
        {"g?a/../b", "http://a:81/b/c/g?a/../b"},
    };
    for (const auto& [reference, expected] : cases)
        EXPECT_EQ(base.resolve(reference).text(), expected) << reference;
    for (const char* reference : {"file:/etc/passwd", "javascript:1", "//u@h/", "a\tb\r\n", "\\\\h\\x"})
        EXPECT_THROW(base.resolve(reference), std::invalid_argument) << reference;
}

TEST(HttpClientProxy, isChosenByTheEnvironment)
{
    struct Case
    {
        const char* exceptions;
        const char* url;
        bool proxied;
    };
    const std::vector<Case> cases{
        {"", "http://a/", true},
        {"*", "http://a/", false},
        {"b, a", "http://a/", false},
        {"a", "http://ba/", true},
        {"example.com", "http://www.example.com/", false},
        {".example.com", "http://example.com/", false},
        {"*.example.com", "http://www.example.com/", false},
        {"example.com", "http://anexample.com/", true},
        {"a:8080", "http://a:8080/", false},
        {"a:8080", "http://a/", true},
        {"EXAMPLE.com", "https://example.COM/", false},
        {"0.1", "http://10.0.0.1/", true},
        {"::1", "http://[::1]/", false},
        {"[::1]:80", "http://[::1]:81/", true},
    };
    for (const auto& [exceptions, url, proxied] : cases) {
        const ProxySettings settings{"http://p:3128/", "http://q", exceptions};
        EXPECT_EQ(settings.forUrl(Url::parse(url)).has_value(), proxied) << exceptions << " " << url;
    }
    const ProxySettings settings{"u%40:p%3A@p:3128", "socks5://u:secret@q", ""};
    const auto proxy = settings.forUrl(Url::parse("http://a/"));
    ASSERT_TRUE(proxy);
    EXPECT_EQ(proxy->url.endpoint(), "p:3128");
    EXPECT_EQ(proxy->authorization, "Basic dUA6cDo=");
    try {
        settings.forUrl(Url::parse("https://a/"));
        FAIL() << "a kind of proxy that is not supported";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "The proxy in https_proxy is not of the form http://host:port");
    }

    const Variable upper("HTTP_PROXY", "http://upper:1");
    const Variable https("HTTPS_PROXY", "http://s:1");
    const Variable none("NO_PROXY", "b");
    EXPECT_FALSE(ProxySettings::fromEnvironment().forUrl(Url::parse("http://a/"))) << "a program's client sets it";
    EXPECT_TRUE(ProxySettings::fromEnvironment().forUrl(Url::parse("https://a/")));
    EXPECT_FALSE(ProxySettings::fromEnvironment().forUrl(Url::parse("https://b/")));
}

TEST_F(HttpClient, sendsWhatItIsToldAndReturnsWhatComes)
{
    TestServer server([](Peer& peer, const std::string&) {
        peer.send(
            "HTTP/1.1 103 Early\r\nLink: x\r\n\r\nHTTP/1.1 404 Gone Fishing\r\nX-A: 1\r\nX-A: 2\r\nContent-Length: "
            "3\r\n\r\nabcTHIS IS NOT OF THE BODY");
    });
    auto asked = request(server.url("/p?q=%20#f"));
    asked->method = "PUT";
    asked->headers.add("X-Mine", "=?utf-8?Q?ä?= é");
    asked->body = std::string("a\0b", 3);
    const HttpClientResponse response = get(std::move(asked));
    EXPECT_EQ(response.status, 404u);
    EXPECT_EQ(response.reason, "Gone Fishing");
    EXPECT_EQ(response.headers.count("x-a"), 2u);
    EXPECT_EQ(response.body, "abc");
    EXPECT_EQ(response.bytes, 3u);
    EXPECT_EQ(response.url, server.url("/p?q=%20"));
    const std::string wire = server.requests().at(0);
    EXPECT_TRUE(wire.starts_with("PUT /p?q=%20 HTTP/1.1\r\n")) << wire;
    for (const char* part : {"\r\nAccept-Encoding: identity\r\n", "\r\nX-Mine: =?utf-8?Q?ä?= é\r\n",
                             "\r\nContent-Length: 3\r\n", "\r\nConnection: Close\r\n"})
        EXPECT_TRUE(has(wire, part)) << part << wire;
    EXPECT_TRUE(has(wire, "\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n")) << wire;
    EXPECT_TRUE(wire.ends_with(std::string("\r\n\r\na\0b", 7)));
}

TEST_F(HttpClient, refusesRequestsThatMustNotBeSent)
{
    const std::vector<std::pair<std::function<void(HttpClientRequest&)>, std::string>> cases{
        {[](HttpClientRequest& r) { r.url = "file:///etc/passwd"; }, "Not an http or https URL"},
        {[](HttpClientRequest& r) { r.method = "GET /"; }, "Not a method to send: \"GET /\""},
        {[](HttpClientRequest& r) { r.method = "CONNECT"; }, "Not a method to send"},
        {[](HttpClientRequest& r) { r.headers.add("host", "b"); }, "The header host is set by the client itself."},
        {[](HttpClientRequest& r) { r.headers.add("Transfer-Encoding", "chunked"); }, "The header Transfer-Encoding"},
        {[](HttpClientRequest& r) { r.timeout = 0ms; }, "timeout must be"},
        {[](HttpClientRequest& r) { r.totalTimeout = std::chrono::milliseconds::max(); }, "totalTimeout must be"},
        {[](HttpClientRequest& r) { r.maxRedirects = 21; }, "maxRedirects must be at most 20, not 21."},
        {[](HttpClientRequest& r) { r.file = "/tmp/"; }, "Not the name of a file: \"/tmp/\""},
    };
    for (const auto& [spoil, expected] : cases) {
        auto spoilt = request("http://127.0.0.1:1/");
        spoil(*spoilt);
        EXPECT_THROW(
            {
                try {
                    get(std::move(spoilt));
                } catch (const std::invalid_argument& error) {
                    EXPECT_TRUE(has(error.what(), expected)) << error.what();
                    throw;
                }
            },
            std::invalid_argument)
            << expected;
    }
}

TEST_F(HttpClient, readsBodiesToTheirEndOnly)
{
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::string chunked = head + "Transfer-Encoding: chunked\r\n\r\n";
    const std::vector<std::tuple<std::string, std::string, std::string>> cases{
        {head + "Content-Length: 2\r\n\r\nab", "ab", ""},
        {head + "\r\nuntil the end", "until the end", ""},
        {chunked + "2;x=1\r\nab\r\n1\r\nc\r\n0\r\nT: 1\r\n\r\n", "abc", ""},
        {"HTTP/1.1 204 No\r\nContent-Length: 5\r\n\r\n", "", ""},
        {"HTTP/1.1 100 Continue\r\n\r\n" + head + "Content-Length: 0\r\n\r\n", "", ""},
        {head + "Content-Length: 5\r\n\r\nab", "", "ends after 2 of 5 bytes"},
        {chunked + "5\r\nab", "", "ends within the body"},
        {chunked + "2\r\nab\r\n", "", "ends within the body"},
        {chunked + "zz\r\nab\r\n", "", "Not a chunk size: \"zz\""},
        {head + "Content-Length: -1\r\n\r\n", "", "Content-Length \"-1\""},
        {head + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nab", "", "Content-Length \"2\""},
        {head + "Transfer-Encoding: gzip\r\n\r\n", "", "Transfer-Encoding \"gzip\""},
        {head + "Content-Length: 101\r\n\r\n", "", "is longer than 100 bytes."},
        {chunked + "65\r\n" + std::string(101, 'x') + "\r\n0\r\n\r\n", "", "is longer than 100 bytes."},
        {head + "\r\n" + std::string(101, 'x'), "", "is longer than 100 bytes."},
        {head + "\r\n" + std::string(100, 'x'), std::string(100, 'x'), ""},
        {"", "", "the server closed the connection"},
        {"HTTP/1.1 2", "", "answer of"},
        {"SSH-2.0-Server\r\n\r\n", "", "answer of"},
        {"HTTP/1.1 101 Switching Protocols\r\n\r\n", "", "nobody asked for: status 101"},
        {head + "X: " + std::string(1'000'000, 'x'), "", "answer of"},
        {head +
             [] {
                 std::string f;
                 for (int i = 0; i < 101; ++i)
                     f += "X: 1\r\n";
                 return f;
             }() +
             "\r\n",
         "", "answer of"},
        {head + "X: =?utf-8?Q?a=0D=0Ab?=\r\nContent-Length: 1\r\n\r\na", "", "Control character"},
    };
    std::mutex mutex;
    std::string wire;
    TestServer server([&](Peer& peer, const std::string&) {
        std::unique_lock lock(mutex);
        const std::string sent = wire;
        lock.unlock();
        peer.send(sent);
    });
    for (const auto& [bytes, body, expected] : cases) {
        {
            std::lock_guard lock(mutex);
            wire = bytes;
        }
        auto asked = request(server.url("/x?secret"));
        asked->maxBytes = 100;
        try {
            EXPECT_EQ(get(std::move(asked)).body, body) << bytes.substr(0, 100);
            EXPECT_EQ(expected, "") << bytes.substr(0, 100);
        } catch (const std::runtime_error& error) {
            EXPECT_NE(expected, "") << error.what();
            EXPECT_TRUE(has(error.what(), expected)) << error.what();
            EXPECT_TRUE(has(error.what(), server.url("/x"))) << error.what();
            EXPECT_FALSE(has(error.what(), "secret")) << error.what();
        }
    }
    auto head1 = request(server.url());
    head1->method = "HEAD";
    wire = head + "Content-Length: 5\r\n\r\n";
    EXPECT_EQ(get(std::move(head1)).headers.get("Content-Length"), "5");
}

TEST_F(HttpClient, followsRedirects)
{
    struct Case
    {
        unsigned status;
        const char* method;
        const char* methodAfter;
        bool bodyAfter;
    };
    TestServer server([&](Peer& peer, const std::string& text) {
        const auto begin = text.find(' ') + 1;
        const std::string path = text.substr(begin, text.find(' ', begin) - begin);
        if (path.starts_with("/from/"))
            peer.send(
                answer(static_cast<unsigned>(std::stoul(path.substr(6))), "Location: ../to/./x?y\r\n", "ignored"));
        else
            peer.send(answer(200, "", "arrived"));
    });
    for (const auto& [status, method, methodAfter, bodyAfter] : std::vector<Case>{{301, "GET", "GET", true},
                                                                                  {301, "POST", "GET", false},
                                                                                  {302, "POST", "GET", false},
                                                                                  {302, "PUT", "PUT", true},
                                                                                  {303, "PUT", "GET", false},
                                                                                  {303, "HEAD", "HEAD", true},
                                                                                  {307, "POST", "POST", true},
                                                                                  {308, "DELETE", "DELETE", true}}) {
        auto asked = request(server.url("/from/" + std::to_string(status)));
        asked->method = method;
        asked->headers.add("Content-Type", "text/plain");
        asked->headers.add("Authorization", "x");
        asked->body = "the body";
        EXPECT_EQ(get(std::move(asked)).url, server.url("/to/x?y"));
        const std::string wire = server.requests().back();
        EXPECT_TRUE(wire.starts_with(std::string(methodAfter) + " /to/x?y ")) << wire;
        EXPECT_EQ(has(wire, "the body"), bodyAfter) << wire;
        EXPECT_EQ(has(wire, "Content-Type"), bodyAfter) << wire;
        EXPECT_TRUE(has(wire, "Authorization: x")) << "the same origin: " << wire;
    }
    auto notFollowed = request(server.url("/from/302"));
    notFollowed->maxRedirects = 0;
    EXPECT_EQ(get(std::move(notFollowed)).status, 302u);
}

TEST_F(HttpClient, doesNotFollowEverything)
{
    std::string location;
    TestServer other([](Peer& peer, const std::string&) { peer.send(answer(200)); });
    TestServer server([&](Peer& peer, const std::string&) {
        peer.send(answer(307, location.empty() ? "" : "Location: " + location + "\r\n"));
    });

    location = other.url();
    auto asked = request(server.url());
    for (const char* name : {"Authorization", "cookie", "Proxy-Authorization", "X-Kept"})
        asked->headers.add(name, "v");
    EXPECT_EQ(get(std::move(asked)).status, 200u);
    const std::string wire = other.requests().at(0);
    EXPECT_TRUE(has(wire, "X-Kept")) << wire;
    for (const char* name : {"Authorization", "ookie"})
        EXPECT_FALSE(has(wire, name)) << wire;

    location.clear();
    EXPECT_EQ(get(server.url()).status, 307u) << "without Location it is an answer";
    location = "/loop";
    const auto before = server.connections();
    auto looping = request(server.url());
    looping->maxRedirects = 3;
    EXPECT_EQ(failure(std::move(looping)), "More than 3 redirects, the last by " + server.url("/loop"));
    EXPECT_EQ(server.connections() - before, 4u);
    location = "file:///etc/passwd";
    EXPECT_EQ(failure(server.url("/?q")),
              "Redirect by " + server.url("/") + " refused: Not an http or https URL: \"file:///etc/passwd\"");

    const Certificate certificate(folder_.string(), "IP:127.0.0.1");
    const Variable trusted("SSL_CERT_FILE", certificate.path());
    TestServer secure([&](Peer& peer, const std::string&) { peer.send(answer(302, "Location: " + location + "\r\n")); },
                      certificate.serverContext());
    location = other.url("/plain?q");
    EXPECT_EQ(failure(secure.url()),
              "Redirect by " + secure.url() + " refused, since it leaves TLS: " + other.url("/plain"));
    EXPECT_EQ(other.connections(), 1u);
}

TEST_F(HttpClient, trustsCertificatesOfTheStoreForTheirHosts)
{
    const Certificate good(folder_.string(), "DNS:localhost,IP:127.0.0.1");
    const Certificate named(folder_.string(), "DNS:localhost");
    const Certificate other(folder_.string(), "DNS:example.com");
    const Certificate expired(folder_.string(), "IP:127.0.0.1", true);
    struct Case
    {
        const Certificate& served;
        const Certificate* trusted;
        const char* host;
        const char* expected;
    };
    for (const auto& [served, trusted, host, expected] :
         std::vector<Case>{{good, &good, "127.0.0.1", ""},
                           {good, &good, "localhost", ""},
                           {good, nullptr, "localhost", "cannot be verified: self-signed certificate"},
                           {good, &other, "localhost", "cannot be verified: "},
                           {named, &named, "127.0.0.1", "is for another host."},
                           {other, &other, "localhost", "is for another host."},
                           {expired, &expired, "127.0.0.1", "cannot be verified: certificate has expired"}}) {
        const Variable variable("SSL_CERT_FILE", trusted ? trusted->path() : "/nowhere");
        client_ = newClient();
        TestServer server([](Peer& peer, const std::string&) { peer.send(answer(200, "", "over TLS")); },
                          served.serverContext());
        const std::string url = "https://" + std::string(host) + ":" + std::to_string(server.port()) + "/";
        const std::string text = failure(url);
        EXPECT_EQ(text.empty(), !*expected) << text;
        EXPECT_TRUE(has(text, expected)) << text;
        EXPECT_TRUE(text.empty() || has(text, "The certificate of " + std::string(host) + ":")) << text;
        EXPECT_EQ(server.requests().size(), *expected ? 0u : 1u) << "nothing is sent to a server that is not trusted";
    }
}

TEST_F(HttpClient, speaksTlsInBothDirections)
{
    const Certificate certificate(folder_.string(), "IP:127.0.0.1");
    const Variable trusted("SSL_CERT_FILE", certificate.path());
    const std::string large(3'000'000, 'b');
    TestServer server(
        [&](Peer& peer, const std::string& text) {
            peer.send(answer(200, "", text.substr(text.size() - large.size())));
        },
        certificate.serverContext());
    auto asked = request(server.url());
    asked->method = "POST";
    asked->body = large;
    EXPECT_TRUE(get(std::move(asked)).body == large);

    TestServer plain([](Peer& peer, const std::string&) { peer.send(answer(200)); });
    EXPECT_TRUE(
        failure("https://127.0.0.1:" + std::to_string(plain.port()) + "/").starts_with("No TLS with 127.0.0.1:"));
    EXPECT_NE(failure("https://localhost:" + std::to_string(plain.port()) + "/"), "");
    EXPECT_TRUE(has(plain.requests().at(1), "localhost")) << "the server learns which certificate is wanted";
    EXPECT_FALSE(has(plain.requests().at(0), "127.0.0.1")) << "addresses are no names";
    TestServer cut(
        [](Peer& peer, const std::string&) {
            peer.send("HTTP/1.1 200 OK\r\n\r\nfirst half");
            peer.cut();
        },
        certificate.serverContext());
    EXPECT_TRUE(failure(cut.url()).starts_with("The connection to 127.0.0.1:")) << "an end that anybody can forge";
    auto old = certificate.serverContext();
    old->disableProtocols(Poco::Net::Context::PROTO_TLSV1_2 | Poco::Net::Context::PROTO_TLSV1_3);
    TestServer ancient([](Peer& peer, const std::string&) { peer.send(answer(200)); }, old);
    EXPECT_TRUE(failure(ancient.url()).starts_with("No TLS with 127.0.0.1:"));
}

TEST_F(HttpClient, namesWhatTookTooLong)
{
    const std::map<std::string, std::string> sent{
        {"/silent", ""}, {"/half", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"}, {"/head", "HTTP/1.1 200"}};
    TestServer server([&](Peer& peer, const std::string& text) {
        if (has(text, "/drip")) {
            while (peer.send("HTTP/1.1 100 Continue\r\n\r\n"))
                std::this_thread::yield();
        } else {
            for (const auto& [path, bytes] : sent)
                if (has(text, path))
                    peer.send(bytes);
            peer.waitForEnd();
        }
    });
    const auto within = [&](const std::string& path, std::chrono::milliseconds step, std::chrono::milliseconds total) {
        auto asked = request(server.url(path));
        asked->timeout = step;
        asked->totalTimeout = total;
        return failure(std::move(asked));
    };
    const std::string after = "Timed out after 50 ms ";
    EXPECT_EQ(within("/silent", 50ms, 5s), after + "waiting for the answer of " + server.url("/silent") + ".");
    EXPECT_EQ(within("/head", 50ms, 5s), after + "waiting for the answer of " + server.url("/head") + ".");
    EXPECT_EQ(within("/half", 50ms, 5s), after + "reading the answer of " + server.url("/half") + ".");
    EXPECT_EQ(within("/silent", 5s, 60ms), "The request to " + server.url("/silent") + " took longer than 60 ms.");
    EXPECT_EQ(within("/drip", 5s, 60ms), "The request to " + server.url("/drip") + " took longer than 60 ms.");
    auto handshake = request("https://127.0.0.1:" + std::to_string(server.port()) + "/");
    handshake->timeout = 50ms;
    EXPECT_EQ(failure(std::move(handshake)),
              after + "in the TLS handshake with 127.0.0.1:" + std::to_string(server.port()) + ".");
    EXPECT_TRUE(eventually([&] { return server.open() == 0; })) << "connections are closed";

    const std::uint16_t closed = [] { return TestServer([](Peer&, const std::string&) {}).port(); }();
    EXPECT_EQ(failure("http://127.0.0.1:" + std::to_string(closed) + "/"),
              "Cannot connect to 127.0.0.1:" + std::to_string(closed) + ": Connection refused");
}

TEST_F(HttpClient, takesTheAnswerOfAServerThatDoesNotReadTheBody)
{
    TestServer server([](Peer& peer, const std::string&) { peer.send(answer(413, "", "too large")); });
    auto asked = request(server.url());
    asked->method = "POST";
    asked->headers.add("X-Unread", "1");
    asked->body = std::string(20'000'000, 'x');
    EXPECT_EQ(get(std::move(asked)).status, 413u);
}

TEST_F(HttpClient, streamsToAFile)
{
    constexpr std::size_t kPiece = 1'000'000;
    TestServer server([](Peer& peer, const std::string& text) {
        if (has(text, "/missing"))
            return void(peer.send(answer(404, "", "no such thing")));
        peer.send("HTTP/1.1 200 OK\r\nContent-Length: 50000000\r\n\r\n");
        std::string piece(kPiece, '\0');
        for (char c = 0; c < 50; ++c) {
            piece.assign(kPiece, c);
            peer.send(piece);
        }
    });
    const fs::path file = folder_ / "body";
    std::ofstream(file) << "old";
    const auto into = [&](const std::string& path, const fs::path& name) {
        auto asked = request(server.url(path));
        asked->file = name;
        return asked;
    };
    HttpClientResponse response = get(into("/missing", file));
    EXPECT_EQ(response.status, 404u);
    EXPECT_FALSE(response.file);
    EXPECT_EQ(response.body, "no such thing");
    EXPECT_EQ(fs::file_size(file), 3u) << "an error page replaces nothing";

    rusage before{};
    ::getrusage(RUSAGE_SELF, &before);
    response = get(into("/", file));
    rusage after{};
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 20'000) << "kilobytes";
    EXPECT_EQ(response.bytes, 50'000'000u);
    EXPECT_EQ(response.file, file);
    struct stat status
    {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
    EXPECT_EQ(status.st_size, 50'000'000);
    std::ifstream written(file, std::ios::binary);
    for (int c = 0; c < 50; ++c) {
        std::string piece(kPiece, '\0');
        written.read(piece.data(), kPiece);
        ASSERT_TRUE(piece.find_first_not_of(static_cast<char>(c)) == std::string::npos) << c;
    }
    EXPECT_EQ(files(), 1u) << "nothing is left beside it";

    EXPECT_EQ(failure(into("/", folder_ / "no" / "body")),
              "Cannot write " + (folder_ / "no/body").string() + ": there is no folder " + (folder_ / "no").string());
    EXPECT_EQ(failure(into("/", folder_)), "Cannot write " + folder_.string() + ": it is a folder");
    auto limited = into("/", file);
    limited->maxBytes = 10;
    EXPECT_EQ(failure(std::move(limited)), "The answer of " + server.url() + " is longer than 10 bytes.");
    EXPECT_EQ(files(), 1u);
    EXPECT_EQ(fs::file_size(file), 50'000'000u);
}

TEST_F(HttpClient, stopsATransferThatNobodyWantsAnyMore)
{
    TestServer server([](Peer& peer, const std::string&) {
        peer.send("HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n" + std::string(100'000, 'x'));
        peer.waitForEnd();
    });
    for (const bool byToken : {true, false}) {
        const auto token = std::make_shared<CancellationToken>();
        auto asked = request(server.url());
        asked->file = folder_ / "body";
        auto future = client_->send(std::move(asked), token);
        ASSERT_TRUE(eventually([&] { return files() == 1; }));
        if (byToken)
            token->cancel();
        else
            future.cancel();
        EXPECT_TRUE(future.isReady());
        EXPECT_THROW(future.get(), FutureCancelled);
        EXPECT_TRUE(eventually([&] { return files() == 0 && server.open() == 0; })) << byToken;
    }
}

TEST_F(HttpClient, endsWithItsThreadsWhileRequestsHang)
{
    TestServer server([](Peer& peer, const std::string&) { peer.waitForEnd(); });
    std::vector<Future<HttpClientResponse>> futures;
    for (int i = 0; i < 40; ++i)
        futures.push_back(client_->send(request(server.url()), nullptr));
    ASSERT_TRUE(eventually([&] { return server.requests().size() == 16; }));
    EXPECT_EQ(threadsOfClient(), 16u);
    client_->stop();
    EXPECT_EQ(threadsOfClient(), 0u);
    for (auto& future : futures) {
        EXPECT_TRUE(future.isReady());
        EXPECT_THROW(future.get(), ServiceFault);
    }
    EXPECT_THROW(get(server.url()), ServiceFault);
    client_->start();
    const auto again = client_->send(request(server.url()), nullptr);
    EXPECT_TRUE(eventually([&] { return server.requests().size() == 17; }));
}

TEST_F(HttpClient, boundsWhatWaits)
{
    TestServer server([](Peer& peer, const std::string&) { peer.waitForEnd(); });
    std::vector<Future<HttpClientResponse>> futures;
    for (int i = 0; i < 1'100; ++i)
        futures.push_back(client_->send(request(server.url()), nullptr));
    const auto refused = std::count_if(futures.begin(), futures.end(), [](auto& future) { return future.isReady(); });
    EXPECT_GE(refused, 84);
    EXPECT_LE(refused, 100);
    EXPECT_THROW(futures.back().get(), ServiceFault);
}

TEST_F(HttpClient, serves100RequestsAtATimeThroughTheRegistry)
{
    const auto server = std::make_shared<PocoHttpsServer>(ServerSettings(), [](std::unique_ptr<HttpRequest> asked) {
        PocoHttpsServer::Exchange exchange;
        exchange.answer =
            readWhole(std::move(asked), 1u << 20)
                .then([](Future<std::unique_ptr<HttpRequest>> whole) -> std::unique_ptr<Message> {
                    const auto received = whole.get();
                    return std::make_unique<HttpResponse>(200, "text/plain", received->query + received->body);
                });
        return exchange;
    });
    server->open();
    const auto connector = std::make_shared<ConnectorImpl2>("test");
    connector->addServiceProvider("connector/http/client", client_);
    std::vector<MessageFuture> futures;
    for (int i = 0; i < 100; ++i) {
        auto asked = request("http://127.0.0.1:" + std::to_string(server->port()) + "/?" + std::to_string(i));
        asked->method = "POST";
        asked->body = std::string(10'000, 'x');
        futures.push_back(connector->handle(std::move(asked), Address{"connector/http/client"},
                                            std::make_shared<Context>(connector)));
    }
    for (int i = 0; i < 100; ++i) {
        const auto message = futures[static_cast<std::size_t>(i)].get();
        EXPECT_EQ(dynamic_cast<const HttpClientResponse&>(*message).body, std::to_string(i) + std::string(10'000, 'x'));
    }
    connector->removeServiceProvider("connector/http/client");
    EXPECT_EQ(threadsOfClient(), 0u);
    server->close();
}

TEST_F(HttpClient, asksProxies)
{
    TestServer proxy([](Peer& peer, const std::string&) { peer.send(answer(200, "", "by proxy")); });
    const std::string place = "127.0.0.1:" + std::to_string(proxy.port());
    {
        const Variable variable("http_proxy", "http://me:secret@" + place);
        EXPECT_EQ(get("http://example.invalid/a?b").body, "by proxy");
        const std::string wire = proxy.requests().at(0);
        EXPECT_TRUE(wire.starts_with("GET http://example.invalid/a?b HTTP/1.1\r\n")) << wire;
        EXPECT_TRUE(has(wire, "\r\nHost: example.invalid\r\n")) << wire;
        EXPECT_TRUE(has(wire, "\r\nProxy-Authorization: Basic bWU6c2VjcmV0\r\n")) << wire;
        const Variable direct("no_proxy", "127.0.0.1");
        TestServer server([](Peer& peer, const std::string&) { peer.send(answer(200, "", "direct")); });
        EXPECT_EQ(get(server.url()).body, "direct");
        EXPECT_FALSE(has(server.requests().at(0), "Proxy-"));
    }

    const Certificate certificate(folder_.string(), "IP:127.0.0.1");
    const Variable trusted("SSL_CERT_FILE", certificate.path());
    TestServer secure([](Peer& peer, const std::string&) { peer.send(answer(200, "", "through")); },
                      certificate.serverContext());
    bool open = true;
    TestServer tunnel([&](Peer& peer, const std::string&) {
        if (!open)
            return void(peer.send(answer(403, "", "no")));
        peer.send("HTTP/1.1 200 Connection established\r\n\r\n");
        peer.joinWith(secure.port());
    });
    const std::string endpoint = "127.0.0.1:" + std::to_string(secure.port());
    const Variable variable("https_proxy", "me:secret@127.0.0.1:" + std::to_string(tunnel.port()));
    EXPECT_EQ(get(secure.url()).body, "through");
    const std::string wire = tunnel.requests().at(0);
    EXPECT_TRUE(wire.starts_with("CONNECT " + endpoint + " HTTP/1.1\r\n")) << wire;
    EXPECT_TRUE(has(wire, "Proxy-Authorization: Basic bWU6c2VjcmV0\r\n")) << wire;
    EXPECT_FALSE(has(secure.requests().at(0), "Proxy-")) << "the proxy's password is not the server's to see";
    open = false;
    EXPECT_EQ(failure(secure.url()), "The proxy 127.0.0.1:" + std::to_string(tunnel.port()) + " refuses the way to " +
                                         endpoint + ": 403 Fine");
}

} // namespace
} // namespace connector::http
