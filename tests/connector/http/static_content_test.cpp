#include "connector/http/content/HttpDate.h"
#include "connector/http/content/OpenBeneath.h"
#include "connector/http/content/Ranges.h"
#include "connector/http/http_client.h"
#include "connector/http/static_content_fixture.h"

namespace connector::http {
namespace {

using namespace test;

TEST_F(StaticContent, findsTheLongestRootInWholeSegments)
{
    write(root / "x.txt", "root");
    write(root / "ui/x.txt", "below the root");
    write(root / "uix/x.txt", "a neighbour");
    write(top.path / "ui/x.txt", "ui");
    write(top.path / "deep/x.txt", "deep");
    service->addRoot({"/ui", (top.path / "ui").wstring(), false});
    service->addRoot({"/ui/a/deep", (top.path / "deep").wstring(), false});
    service->addRoot({"/lost", (top.path / "lost").wstring(), false});
    const std::vector<std::pair<std::string, std::string>> cases{
        {"/x.txt", "root"},
        {"/ui/x.txt", "ui"},
        {"/uix/x.txt", "a neighbour"},
        {"/ui", "308"},
        {"/ui/a/x.txt", "404"},
        {"/ui/a/deep/x.txt", "deep"},
        {"/lost/x.txt", "404"},
        {"/lost", "404"},
        {"/ui/" + std::string(4'000, 'a'), "404"},
        {"/ui/a/deeper", "404"},
        {"/vendra/x.txt", "404"},
        {"/vendra/toolbox/x.txt", "root"},
        {"/", "404"},
        {"x.txt", "404"},
        {"", "404"},
    };
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(textOf(path), expected) << path;

    service->removeRoot("/ui");
    EXPECT_EQ(textOf("/ui/x.txt"), "below the root");
    service->addRoot({"", (top.path / "deep").wstring(), false});
    EXPECT_EQ(textOf("/x.txt"), "deep");
    service->removeRoot("");
    EXPECT_EQ(textOf("/x.txt"), "404");
    EXPECT_EQ(service->listRoots().size(), 4u);
}

TEST_F(StaticContent, staysInsideItsRoots)
{
    write(root / "a/file.txt", "inside");
    write(top.path / "rootless/file.txt", "secret");
    fs::create_symlink("a/file.txt", root / "in.txt");
    fs::create_symlink("../a/file.txt", root / "a/up.txt");
    fs::create_symlink("a", root / "folder");
    fs::create_symlink("../secret.txt", root / "out.txt");
    fs::create_symlink("/proc/self/fd", root / "magic");
    fs::create_symlink(top.path / "secret.txt", root / "absolute.txt");
    fs::create_symlink(root / "a/file.txt", root / "absolute_in.txt");
    fs::create_symlink("..", root / "parent");
    fs::create_symlink("loop.txt", root / "loop.txt");
    ASSERT_EQ(::mkfifo((root / "pipe.txt").c_str(), 0600), 0);
    struct Case
    {
        std::string path;
        bool automatic;
        bool stepwise;
    };
    const std::vector<Case> cases{
        {"a/file.txt", true, true},
        {"in.txt", true, false},
        {"a/up.txt", true, false},
        {"folder/file.txt", true, false},
        {"out.txt", false, false},
        {"absolute.txt", false, false},
        {"absolute_in.txt", false, false},
        {"parent/secret.txt", false, false},
        {"parent/root/a/file.txt", false, false},
        {"loop.txt", false, false},
        {"magic/0", false, false},
        {"pipe.txt", false, false},
        {"a", false, false},
        {"../secret.txt", false, false},
        {"../rootless/file.txt", false, false},
        {"a/../a/file.txt", false, false},
        {"./a/file.txt", false, false},
        {"a//file.txt", false, false},
        {"a/file.txt/", false, false},
        {top.path.string() + "/secret.txt", false, false},
        {"/etc/passwd", false, false},
        {std::string("a/file.txt\0.html", 16), false, false},
        {std::string(300, 'n'), false, false},
    };
    const common::FileDescriptor folder(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto reaches = [&](const std::string& path, content::PathWalk walk) {
        const auto opened = content::openBeneath(folder.number(), path, walk);
        return opened && opened->isRegular();
    };
    for (const auto& [path, automatic, stepwise] : cases) {
        EXPECT_EQ(reaches(path, content::PathWalk::automatic), automatic) << path;
        EXPECT_EQ(reaches(path, content::PathWalk::stepwise), stepwise) << path;
        EXPECT_EQ(textOf("/" + path), automatic ? "inside" : path == "a" ? "308" : "404") << path;
    }
}

TEST_F(StaticContent, namesTypes)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {"a.html", "text/html; charset=utf-8"},
        {"a.b.CSS", "text/css; charset=utf-8"},
        {"a.js", "text/javascript; charset=utf-8"},
        {"a.mjs", "text/javascript; charset=utf-8"},
        {"a.json", "application/json; charset=utf-8"},
        {"a.svg", "image/svg+xml; charset=utf-8"},
        {"a.wasm", "application/wasm"},
        {"a.woff2", "font/woff2"},
        {"a.unheardof", "application/octet-stream"},
        {"a.muchlongerthanthose", "application/octet-stream"},
        {"html", "application/octet-stream"},
        {"d.html/a", "application/octet-stream"},
        {"a.", "application/octet-stream"},
    };
    for (const auto& [path, type] : cases) {
        write(root / path, "x");
        const auto response = get("/" + path);
        EXPECT_EQ(response->headers.get("Content-Type"), type) << path;
        EXPECT_EQ(response->headers.get("X-Content-Type-Options"), "nosniff") << path;
        EXPECT_EQ(response->headers.count("Content-Security-Policy"), 0u) << path;
        EXPECT_EQ(response->headers.count("Vary"),
                  type.find("charset") == std::string::npos && path != "a.wasm" ? 0u : 1u)
            << path;
    }
}

TEST_F(StaticContent, leadsToFoldersButNeverListsThem)
{
    write(root / "page/index.html", "page");
    write(root / "empty/x.html", "x");
    fs::create_directories(root / "odd/index.html");
    fs::create_directories(root / "k: #?%/x");
    struct Case
    {
        std::string path;
        unsigned status;
        std::string location;
    };
    const std::vector<Case> cases{
        {"/page", 308, "page/"},
        {"/page?x=1&y=%2F", 308, "page/?x=1&y=%2F"},
        {"/vendra/toolbox/page", 308, "page/"},
        {"/vendra/toolbox", 308, "toolbox/"},
        {"/page/", 200, ""},
        {"/empty", 308, "empty/"},
        {"/empty/", 404, ""},
        {"/odd/", 404, ""},
        {"/k: #%", 404, ""},
        {"//page", 404, ""},
        {"//page/", 404, ""},
    };
    for (const auto& [path, status, location] : cases) {
        const auto response = get(path);
        EXPECT_EQ(response->status, status) << path;
        EXPECT_EQ(response->headers.get("Location"), location) << path;
    }
    fs::create_directories(root / "http:/x");
    EXPECT_EQ(get("/http:")->headers.get("Location"), "http%3A/");
    EXPECT_EQ(get("/missing.html")->body, "File not found.");
    EXPECT_EQ(get("/missing", {{"Accept", "application/json"}})->body, R"({"error":"File not found."})");
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH"})
        EXPECT_EQ(send(method, "/page/")->status, 405u) << method;
    EXPECT_EQ(send("PUT", "/page/")->headers.get("Allow"), "GET, HEAD, OPTIONS");
}

TEST_F(StaticContent, sendsLargeFilesFromTheFile)
{
    for (const std::size_t size : {std::size_t{0}, std::size_t{65'536}, std::size_t{65'537}}) {
        write(root / "f.bin", std::string(size, 'f'));
        const auto response = get("/f.bin");
        EXPECT_EQ(bodyOf(*response), std::string(size, 'f'));
        EXPECT_EQ(response->parts.size(), size > 65'536 ? 1u : 0u);
        const auto head = send("HEAD", "/f.bin", {{"Range", "bytes=0-0"}});
        EXPECT_EQ(head->status, 200u);
        EXPECT_EQ(head->contentLength(), size);
        EXPECT_EQ(head->body, "") << "nothing is read";
    }
}

TEST_F(StaticContent, judgesConditionsInTheirOrder)
{
    constexpr std::time_t kChanged = 1'700'000'000; // Tue, 14 Nov 2023 22:13:20 GMT
    write(root / "f.txt", "0123456789");
    setTime(root / "f.txt", kChanged);
    const auto plain = get("/f.txt");
    const std::string tag = plain->headers.get("ETag");
    const std::string date = "Tue, 14 Nov 2023 22:13:20 GMT";
    const std::string before = "Tue, 14 Nov 2023 22:13:19 GMT";
    const std::string after = "Tuesday, 14-Nov-23 22:13:21 GMT";
    ASSERT_TRUE(tag.starts_with('"') && tag.ends_with('"')) << tag;
    EXPECT_EQ(plain->headers.get("Last-Modified"), date);

    struct Case
    {
        unsigned status;
        Fields fields;
    };
    const std::vector<Case> cases{
        {304, {{"If-None-Match", tag}}},
        {304, {{"If-None-Match", "W/" + tag}}},
        {304, {{"If-None-Match", "*"}}},
        {304, {{"If-None-Match", "\"a,b\" , \"c\",W/\"d\"," + tag}}},
        {304, {{"If-None-Match", "\"a\""}, {"If-None-Match", tag}}},
        {200, {{"If-None-Match", "\"a\""}}},
        {200, {{"If-None-Match", tag.substr(0, tag.size() - 1)}}},
        {200, {{"If-None-Match", "a" + tag}}},
        {200, {{"If-None-Match", "\"a\""}, {"If-Modified-Since", date}}},
        {304, {{"If-None-Match", tag}, {"If-Modified-Since", before}}},
        {304, {{"If-Modified-Since", date}}},
        {304, {{"If-Modified-Since", after}}},
        {304, {{"If-Modified-Since", "Tue Nov 14 22:13:20 2023"}}},
        {200, {{"If-Modified-Since", before}}},
        {200, {{"If-Modified-Since", "yesterday"}}},
        {200, {{"If-Modified-Since", date}, {"If-Modified-Since", date}}},
        {200, {{"If-Match", tag}}},
        {200, {{"If-Match", "*"}}},
        {412, {{"If-Match", "W/" + tag}}},
        {412, {{"If-Match", "\"a\""}}},
        {412, {{"If-Match", "\"a\""}, {"If-Unmodified-Since", after}}},
        {200, {{"If-Match", tag}, {"If-Unmodified-Since", before}}},
        {304, {{"If-Match", tag}, {"If-None-Match", tag}}},
        {412, {{"If-Match", "\"a\""}, {"If-None-Match", tag}}},
        {200, {{"If-Unmodified-Since", date}}},
        {412, {{"If-Unmodified-Since", before}}},
        {412, {{"If-Unmodified-Since", before}, {"If-Modified-Since", date}}},
        {206, {{"Range", "bytes=1-2"}, {"If-Range", tag}}},
        {200, {{"Range", "bytes=1-2"}, {"If-Range", "W/" + tag}}},
        {200, {{"Range", "bytes=1-2"}, {"If-Range", "\"a\""}}},
        {206, {{"Range", "bytes=1-2"}, {"If-Range", date}}},
        {200, {{"Range", "bytes=1-2"}, {"If-Range", after}}},
        {200, {{"Range", "bytes=99-"}, {"If-Range", "\"a\""}}},
        {304, {{"Range", "bytes=99-"}, {"If-None-Match", tag}}},
        {412, {{"Range", "bytes=1-2"}, {"If-Match", "\"a\""}}},
    };
    for (const auto& [status, fields] : cases) {
        std::string text;
        for (const auto& [name, value] : fields)
            text += name + ": " + value + "; ";
        const auto response = get("/f.txt", fields);
        EXPECT_EQ(response->status, status) << text;
        EXPECT_EQ(response->headers.get("ETag"), tag) << text;
        EXPECT_EQ(response->headers.get("Vary"), "Accept-Encoding") << text;
        EXPECT_EQ(response->headers.count("X-Content-Type-Options"), 1u) << text;
        EXPECT_EQ(response->contentLength() == 0, status == 304) << text;
    }

    setTime(root / "f.txt", kChanged + 1);
    EXPECT_NE(get("/f.txt")->headers.get("ETag"), tag);
    setTime(root / "f.txt", std::time(nullptr) + 10'000);
    EXPECT_LE(*content::parseHttpDate(get("/f.txt")->headers.get("Last-Modified"), 0), std::time(nullptr));
}

TEST_F(StaticContent, sendsRanges)
{
    std::string text;
    for (int i = 0; i < 10'000; ++i)
        text += static_cast<char>('a' + i % 23);
    write(root / "f.txt", text);
    write(root / "empty.txt", "");
    struct Case
    {
        std::string range;
        unsigned status;
        std::string contentRange;
    };
    std::string tooMany = "bytes=0-0";
    for (int i = 1; i <= 16; ++i)
        tooMany += "," + std::to_string(i * 500) + "-" + std::to_string(i * 500);
    const std::vector<Case> cases{
        {"bytes=0-0", 206, "bytes 0-0/10000"},
        {"bytes=0-", 206, "bytes 0-9999/10000"},
        {"Bytes=9990-20000", 206, "bytes 9990-9999/10000"},
        {"bytes=-10", 206, "bytes 9990-9999/10000"},
        {"bytes=-20000", 206, "bytes 0-9999/10000"},
        {"bytes=9999-99999999999999999999999", 206, "bytes 9999-9999/10000"},
        {"bytes=5-9,10-14", 206, "bytes 5-14/10000"},
        {"bytes=500-600, 0-550", 206, "bytes 0-600/10000"},
        {"bytes=0-0,100-100,200-200", 206, "bytes 0-200/10000"},
        {"bytes=7-8,20000-", 206, "bytes 7-8/10000"},
        {"bytes=10000-", 416, "bytes */10000"},
        {"bytes=-0", 416, "bytes */10000"},
        {"bytes=99999999999999999999999-", 416, "bytes */10000"},
        {"bytes=2-1", 200, ""},
        {"bytes=", 200, ""},
        {"bytes=a-b", 200, ""},
        {"bytes=1-2;3-4", 200, ""},
        {"bytes=-", 200, ""},
        {"bytes=+1-2", 200, ""},
        {"lines=1-2", 200, ""},
        {"1-2", 200, ""},
        {tooMany, 200, ""},
    };
    for (const auto& [range, status, contentRange] : cases) {
        const auto response = get("/f.txt", {{"Range", range}});
        EXPECT_EQ(response->status, status) << range;
        EXPECT_EQ(response->headers.get("Content-Range"), contentRange) << range;
        EXPECT_EQ(response->headers.get("Accept-Ranges"), "bytes") << range;
        std::size_t first = 0;
        std::size_t last = text.size() - 1;
        if (status == 206) {
            ASSERT_EQ(std::sscanf(contentRange.c_str(), "bytes %zu-%zu/", &first, &last), 2);
        }
        if (status != 416) {
            EXPECT_EQ(bodyOf(*response), text.substr(first, last - first + 1)) << range;
        }
    }
    EXPECT_EQ(get("/f.txt", {{"Range", "bytes=0-0"}, {"Range", "bytes=1-1"}})->status, 200u);
    EXPECT_EQ(get("/empty.txt", {{"Range", "bytes=0-"}})->headers.get("Content-Range"), "bytes */0");
    EXPECT_EQ(get("/empty.txt", {{"Range", "bytes=-1"}})->status, 200u);

    const auto several = get("/f.txt", {{"Range", "bytes=5000-5001,0-2,-3,5002-5003"}});
    EXPECT_EQ(several->status, 206u);
    const std::string type = several->headers.get("Content-Type");
    ASSERT_TRUE(type.starts_with("multipart/byteranges; boundary=")) << type;
    const std::string boundary = type.substr(type.find('=') + 1);
    const auto part = [&](const std::string& range, const std::string& content) {
        return "--" + boundary + "\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Range: bytes " + range +
               "/10000\r\n\r\n" + content + "\r\n";
    };
    EXPECT_EQ(bodyOf(*several), part("5000-5003", text.substr(5'000, 4)) + part("0-2", text.substr(0, 3)) +
                                    part("9997-9999", text.substr(9'997)) + "--" + boundary + "--\r\n");
    EXPECT_NE(get("/f.txt", {{"Range", "bytes=0-2,-3"}})->headers.get("Content-Type"), type);

    // The most that can be asked for is hardly more than the file.
    std::string most = "bytes=0-400";
    for (int i = 1; i < 16; ++i)
        most += "," + std::to_string(i * 600) + "-" + std::to_string(i * 600 + 400);
    const auto response = get("/f.txt", {{"Range", most}});
    EXPECT_EQ(response->parts.size(), 33u);
    EXPECT_LE(*response->contentLength(), text.size() + content::kPartOverhead);
}

TEST_F(StaticContent, takesPrecompressedSiblings)
{
    write(root / "both.js", "plain");
    write(root / "both.js.br", "brotli");
    write(root / "both.js.gz", "gzip");
    write(root / "zip.css", "plain");
    write(root / "zip.css.gz", "0123456789");
    write(root / "picture.png", "plain");
    write(root / "picture.png.gz", "gzip");
    write(root / "old.js", "plain");
    write(root / "old.js.gz", "gzip");
    setTime(root / "old.js.gz", 1'700'000'000);
    write(root / "out.js", "plain");
    fs::create_symlink("../secret.txt", root / "out.js.br");
    fs::create_directories(root / "out.js.gz");
    write(root / "lone.js.gz", "gzip");
    struct Case
    {
        std::string path;
        std::string accept;
        std::string coding;
        std::string body;
    };
    const std::vector<Case> cases{
        {"/both.js", "gzip, deflate, br", "br", "brotli"},
        {"/both.js", "br;q=0, gzip", "gzip", "gzip"},
        {"/both.js", "BR ; q=0.000, GZIP;q=0.001", "gzip", "gzip"},
        {"/both.js", "*", "br", "brotli"},
        {"/both.js", "*, br;q=0", "gzip", "gzip"},
        {"/both.js", "*;q=0, x-gzip", "gzip", "gzip"},
        {"/both.js", "*;q=0", "", "plain"},
        {"/both.js", "identity", "", "plain"},
        {"/both.js", "brx, xgzip", "", "plain"},
        {"/both.js", "", "", "plain"},
        {"/zip.css", "br, gzip", "gzip", "0123456789"},
        {"/zip.css", "br", "", "plain"},
        {"/picture.png", "br, gzip", "", "plain"},
        {"/old.js", "br, gzip", "", "plain"},
        {"/out.js", "br, gzip", "", "plain"},
        {"/lone.js", "br, gzip", "", "404"},
    };
    for (const auto& [path, accept, coding, body] : cases) {
        const Fields fields{{"Accept-Encoding", accept}};
        EXPECT_EQ(textOf(path, fields), body) << path << " " << accept;
        EXPECT_EQ(get(path, fields)->headers.get("Content-Encoding"), coding) << path << " " << accept;
    }
    const auto plain = get("/zip.css");
    const auto packed = get("/zip.css", {{"Accept-Encoding", "gzip"}, {"Range", "bytes=2-3"}});
    EXPECT_EQ(plain->headers.get("Vary"), "Accept-Encoding");
    EXPECT_EQ(packed->headers.get("Vary"), "Accept-Encoding");
    EXPECT_EQ(packed->headers.get("Content-Type"), "text/css; charset=utf-8");
    EXPECT_EQ(packed->headers.get("Content-Range"), "bytes 2-3/10");
    EXPECT_EQ(packed->body, "23");
    EXPECT_NE(packed->headers.get("ETag"), plain->headers.get("ETag"));
    write(root / "zip.css.gz", std::string(1'000, 'z'));
    const auto several = get("/zip.css", {{"Accept-Encoding", "gzip"}, {"Range", "bytes=0-0,-1"}});
    EXPECT_EQ(several->status, 200u);
    EXPECT_EQ(bodyOf(*several).size(), 1'000u);
}

TEST_F(StaticContent, keepsUserFilesInASandbox)
{
    write(top.path / "user/page.html", "<script>");
    const auto response = get("/user/page.html");
    const std::string policy = "sandbox; default-src 'none'; style-src 'unsafe-inline'; img-src 'self' data:; "
                               "frame-ancestors 'none'";
    EXPECT_EQ(response->headers.get("Content-Security-Policy"), policy);
    const auto same = get("/user/page.html", {{"If-None-Match", response->headers.get("ETag")}});
    EXPECT_EQ(same->status, 304u);
    EXPECT_EQ(same->headers.get("Content-Security-Policy"), policy) << "or the stored page would lose its own";
}

TEST_F(StaticContent, followsAFolderThatIsReplaced)
{
    write(root / "f.txt", "old");
    EXPECT_EQ(textOf("/f.txt"), "old");
    fs::rename(root, top.path / "before");
    write(root / "f.txt", "new");
    EXPECT_TRUE(test::eventually([&] { return textOf("/f.txt") == "new"; }));
    fs::remove_all(root);
    EXPECT_TRUE(test::eventually([&] { return textOf("/f.txt") == "404"; }));
    write(root / "f.txt", "back");
    EXPECT_TRUE(test::eventually([&] { return textOf("/f.txt") == "back"; }));
}

TEST(HttpDate, isWrittenAndRead)
{
    const std::vector<std::pair<std::int64_t, std::string>> dates{
        {0, "Thu, 01 Jan 1970 00:00:00 GMT"},
        {784'111'777, "Sun, 06 Nov 1994 08:49:37 GMT"},
        {951'825'599, "Tue, 29 Feb 2000 11:59:59 GMT"},
        {253'402'300'799, "Fri, 31 Dec 9999 23:59:59 GMT"},
    };
    for (const auto& [seconds, text] : dates) {
        EXPECT_EQ(content::formatHttpDate(seconds), text);
        EXPECT_EQ(content::parseHttpDate(text, 0), seconds);
    }
    EXPECT_EQ(content::formatHttpDate(-1) + content::formatHttpDate(253'402'300'800), "");
    constexpr std::int64_t kNow = 1'800'000'000; // in 2027
    const std::vector<std::pair<std::string, std::optional<std::int64_t>>> cases{
        {"Sunday, 06-Nov-94 08:49:37 GMT", 784'111'777},
        {"Sun Nov  6 08:49:37 1994", 784'111'777},
        {"Friday, 01-Jan-77 00:00:00 GMT", 3'376'684'800},
        {"Saturday, 01-Jan-78 00:00:00 GMT", 252'460'800},
        {"Sun, 06 Nov 1994 08:49:37 UTC", std::nullopt},
        {"Sun, 06 Nov 1994 24:00:00 GMT", std::nullopt},
        {"Sun, 31 Feb 1994 08:49:37 GMT", std::nullopt},
        {"Sun, 00 Nov 1994 08:49:37 GMT", std::nullopt},
        {"Sun, 06 ovD 1994 08:49:37 GMT", std::nullopt},
        {"Sun, 06 Nov 1994 08:49:37 GMT ", std::nullopt},
        {"Sun, 6 Nov 1994 08:49:37 GMT", std::nullopt},
        {"Sun, 06-Nov-94 08:49:37 GMT", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [text, seconds] : cases)
        EXPECT_EQ(content::parseHttpDate(text, kNow), seconds) << text;
}

} // namespace
} // namespace connector::http
