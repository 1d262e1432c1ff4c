#include <thread>

#include "connector/http/HttpPathFilterServiceProvider.h"
#include "connector/http/StaticContentManagerJsonSerialization.h"
#include "connector/http/StaticContentManagerServiceProviderImpl.h"
#include "connector/http/VendraToolboxStaticContentServiceProvider.h"
#include "connector/http/static_content_fixture.h"
#include "connector/json/JsonSerializerImpl.h"

namespace connector::http {
namespace {

using namespace test;

using StaticContentServices = StaticContent;

TEST_F(StaticContentServices, servesWhileRootsComeAndGo)
{
    write(root / "x/f.txt", "outer");
    write(top.path / "a/f.txt", "a");
    write(top.path / "b/f.txt", "b");
    std::atomic<bool> over{false};
    std::atomic<int> strange{0};
    std::atomic<int> served{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 3; ++i)
        clients.emplace_back([&] {
            while (!over) {
                const std::string text = textOf("/x/f.txt");
                strange += text == "outer" || text == "a" || text == "b" ? 0 : 1;
                ++served;
            }
        });
    for (int i = 0; i < 300 || served < 300; ++i) {
        service->addRoot({"/x", (top.path / (i % 2 ? "a" : "b")).wstring(), true});
        service->addRoot({"/y" + std::to_string(i % 10), root.wstring(), true});
        if (i % 3 == 0)
            service->removeRoot("/x");
    }
    over = true;
    for (auto& client : clients)
        client.join();
    EXPECT_EQ(strange, 0);
}

/// Stands behind the toolbox filter: tells what path it saw, as an answer of any status.
class Echo final : public HttpServiceProvider
{
public:
    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&&, std::shared_ptr<Context>&&) override
    {
        auto response = std::make_unique<HttpResponse>(status, "text/plain", request->path);
        response->headers.add("Cache-Control", cacheControl);
        return makeReadyFuture(std::unique_ptr<Message>(std::move(response)));
    }
    unsigned status = 200;
    std::string cacheControl = "private, no-cache";
};

TEST_F(StaticContentServices, takesReleasesOutOfToolboxPaths)
{
    const auto echo = std::make_shared<Echo>();
    connector->addServiceProvider("toolbox", std::make_shared<VendraToolboxStaticContentServiceProvider>());
    connector->addServiceProvider("echo", echo);
    const std::string kept = "private, max-age=31536000, immutable";
    const std::string longest(64, 'r');
    const std::vector<std::pair<std::string, std::string>> released{
        {"/vendra/toolbox/~1.0_b-2/a/b.js", "/vendra/toolbox/a/b.js"},
        {"/vendra/toolbox/~1/", "/vendra/toolbox/"},
        {"/vendra/toolbox/~" + longest + "/x", "/vendra/toolbox/x"},
        {"/vendra/toolbox/~1/~2/x", "/vendra/toolbox/~2/x"},
        {"/vendra/toolbox/~1/.git/x", "/vendra/toolbox/.git/x"},
    };
    for (const auto& [path, seen] : released) {
        const auto response = send("GET", path, {}, Address{"toolbox", "echo"});
        EXPECT_EQ(response->body, seen);
        EXPECT_EQ(response->headers.get("Cache-Control"), kept) << path;
        EXPECT_EQ(response->headers.count("Cache-Control"), 1u) << path;
    }
    for (const std::string path :
         {"/vendra/toolbox/a.js", "/vendra/toolbox/~/x", "/vendra/toolbox/~1", "/vendra/toolbox/~.1/x",
          "/vendra/toolbox/~a b/x", "/vendra/toolbox/~a~/x", "/vendra/toolbox/x/~1/y", "/vendra/toolbox~1/y",
          "/vendra/toolbox/~1//x", "/vendra/toolbox", "/x/~1/y"}) {
        const auto response = send("GET", path, {}, Address{"toolbox", "echo"});
        EXPECT_EQ(response->body, path);
        EXPECT_EQ(response->headers.get("Cache-Control"), "private, no-cache") << path;
    }
    EXPECT_EQ(send("GET", "/vendra/toolbox/~" + longest + "r/x", {}, Address{"toolbox", "echo"})
                  ->headers.get("Cache-Control"),
              "private, no-cache");

    echo->cacheControl = "private, No-Store";
    EXPECT_EQ(send("GET", "/vendra/toolbox/~1/x", {}, Address{"toolbox", "echo"})->headers.get("Cache-Control"),
              "private, No-Store");
    echo->cacheControl = "no-cache";
    for (const unsigned status : {206u, 304u, 308u, 404u, 500u}) {
        echo->status = status;
        EXPECT_EQ(send("GET", "/vendra/toolbox/~1/x", {}, Address{"toolbox", "echo"})->headers.get("Cache-Control"),
                  status < 308 ? kept : "no-cache")
            << status;
    }

    // What the path filter sees is what is served.
    connector->addServiceProvider(
        "filter", std::make_shared<HttpPathFilterServiceProvider>(HttpPathFilterServiceProvider::defaultWhiteList(),
                                                                  static_cast<unsigned short>(404), "File not found."));
    write(root / "a/index.html", "page");
    write(root / "a/run.sh", "code");
    const auto through = [&](const std::string& path) {
        return send("GET", path, {}, Address{"toolbox", "filter", "content"});
    };
    EXPECT_EQ(through("/vendra/toolbox/~1/a/")->body, "page");
    EXPECT_EQ(through("/vendra/toolbox/~1/a/run.sh")->status, 404u);
    EXPECT_EQ(through("/vendra/toolbox/~1/a")->headers.get("Location"), "a/");
}

TEST_F(StaticContentServices, isManagedByMessages)
{
    connector->addServiceProvider("manager", std::make_shared<StaticContentManagerServiceProviderImpl>(service));
    const auto serializer = std::make_shared<json::JsonSerializerImpl>();
    const StaticContentManagerJsonSerialization serialization(serializer);
    const auto ask = [&](const std::string& text) {
        try {
            auto message = serializer->read(text);
            const auto answer =
                connector->handle(std::move(message), Address{"manager"}, connector->newContext()).get();
            return serializer->write(*answer);
        } catch (const std::exception& error) {
            return std::string(error.what());
        }
    };
    write(top.path / "grüße/f.txt", "ü");
    const std::string folder = (top.path / "grüße").string();
    const std::string added = R"("prefix":"/mine","folder":")" + folder + R"(","userFiles":true)";
    EXPECT_NE(ask(R"({"type":"AddContentRoot","prefix":"/mine","folder":")" + folder + "\"}").find(added),
              std::string::npos);
    EXPECT_EQ(textOf("/mine/f.txt"), "ü");
    EXPECT_EQ(get("/mine/f.txt")->headers.count("Content-Security-Policy"), 1u);
    EXPECT_NE(ask(R"({"type":"ListContentRoots"})").find(added), std::string::npos);
    ask(R"({"type":"AddContentRoot","prefix":"/mine","folder":")" + folder + R"(","userFiles":false})");
    EXPECT_EQ(get("/mine/f.txt")->headers.count("Content-Security-Policy"), 0u);
    EXPECT_NE(ask(R"({"type":"RemoveContentRoot","prefix":"/mine"})").find("\"/mine\""), std::string::npos);
    EXPECT_EQ(textOf("/mine/f.txt"), "404");

    EXPECT_EQ(ask(R"({"type":"RemoveContentRoot","prefix":"/mine"})"), "There is no content root \"/mine\".");
    EXPECT_EQ(ask(R"({"type":"AddContentRoot","prefix":"/a","folder":"x/y"})"),
              "The folder of content root \"/a\" is not absolute: \"x/y\"");
    EXPECT_EQ(ask(R"({"type":"AddContentRoot","prefix":"/a","folder":""})"), "Content root \"/a\" has no folder: \"\"");
    EXPECT_NE(ask("{\"type\":\"AddContentRoot\",\"prefix\":\"/a\",\"folder\":\"/b\\u0000c\"}").find("NUL"),
              std::string::npos);
    for (const std::string prefix : {"a", "/", "/a/", "/a//b", "/a/../b", "/.", "//a"})
        EXPECT_EQ(ask(R"({"type":"AddContentRoot","prefix":")" + prefix + R"(","folder":"/x"})"),
                  "Not the prefix of a content root: \"" + prefix + "\"");
    for (const char* text : {R"({"type":"AddContentRoot","prefix":"/a"})", R"({"type":"RemoveContentRoot"})",
                             R"({"type":"AddContentRoot","prefix":"/a","folder":"/b","userFiles":1})"})
        EXPECT_THROW(serializer->read(text), json::JsonError) << text;
    for (int i = 3; i < 1'000; ++i)
        service->addRoot({"/" + std::to_string(i), L"/x", true});
    EXPECT_THROW(service->addRoot({"/one/more", L"/x", true}), std::length_error);
    service->addRoot({"/3", L"/y", true});
}

TEST_F(StaticContentServices, readsRootsFromTheConfiguration)
{
    write(top.path / "mine/f.txt", "mine");
    configuration->set("http.contentRoots",
                       std::vector<std::string>{"/mine=" + (top.path / "mine").string(), "nonsense", "/a=relative",
                                                "b=/b", "=" + (top.path / "mine").string()});
    service = std::make_shared<StaticContentServiceImpl>(configuration, StaticContentServiceImpl::Roots{{"/r", L"tmp"}},
                                                         StaticContentServiceImpl::Flags{}, false);
    connector->addServiceProvider("content", std::make_shared<StaticContentServiceProvider>(service));
    EXPECT_EQ(textOf("/mine/f.txt"), "mine");
    EXPECT_EQ(textOf("/f.txt"), "mine");
    EXPECT_EQ(get("/f.txt")->headers.count("Content-Security-Policy"), 1u);
    EXPECT_EQ(textOf("/r"), "404") << "a relative folder is nowhere";
    EXPECT_EQ(service->listRoots().size(), 3u);
    EXPECT_THROW(StaticContentServiceImpl(configuration, {{"x", L"/x"}}, {}, false), std::invalid_argument);
}

} // namespace
} // namespace connector::http
