#include "configuration_fixture.h"

#include <atomic>
#include <thread>

#include "connector/configuration/ConfigurationImpl.h"

#include <sys/stat.h>

namespace {

using namespace connector::configuration;

Setting settingOf(const Configuration& configuration, const std::string& name)
{
    for (auto& setting : configuration.list()) {
        if (setting.name == name)
            return setting;
    }
    throw std::out_of_range(name);
}

TEST_F(ConfigurationTest, LaterSourcesWin)
{
    writeFile(rootFile(), "http.ioThreads = 3\nhttp.maxSessions=30\nhttp.maxConnections =300\nhttp.address = ::1\n");
    writeFile(userFile(), "# mine\n\n  http.maxSessions = 40 \r\nhttp.maxConnections = 400\n");
    setVariable("VENDRA_HTTP_MAX_CONNECTIONS", "500");
    ConfigurationImpl configuration;
    EXPECT_TRUE(configuration.problems().empty()) << configuration.problems().front();

    const std::tuple<const char*, Value, std::string> rows[] = {
        {"http.port", std::int64_t{0}, "default"},
        {"http.address", std::string("::1"), rootFile().string()},
        {"http.ioThreads", std::int64_t{3}, rootFile().string()},
        {"http.maxSessions", std::int64_t{40}, userFile().string()},
        {"http.maxConnections", std::int64_t{500}, "environment VENDRA_HTTP_MAX_CONNECTIONS"},
    };
    for (const auto& [name, value, source] : rows) {
        EXPECT_EQ(configuration.get(name), value) << name;
        EXPECT_EQ(settingOf(configuration, name).source, source) << name;
    }

    configuration.set("http.maxSessions", std::int64_t{50});
    EXPECT_EQ(configuration.getInteger("http.maxSessions"), 50);
    EXPECT_EQ(settingOf(configuration, "http.maxSessions").source, "set");
    configuration.unset("http.maxSessions");
    EXPECT_EQ(configuration.getInteger("http.maxSessions"), 40);
    EXPECT_EQ(settingOf(configuration, "http.maxSessions").source, userFile().string());
}

TEST_F(ConfigurationTest, WhatIsWrongIsLeftOutAndReportedWithItsPlace)
{
    writeFile(rootFile(), "http.maxSessions = 0\n"
                          "http.prot = 80\n"
                          "just words\n"
                          "http.ioThreads = many\n"
                          "security.maxBrowsers = yes\n"
                          "http.maxSessions = 7\n");
    std::filesystem::create_directory(userFile());
    setVariable("VENDRA_HTTP_IO_THREAD", "4");
    setVariable("VENDRA_HTTP_MAX_SESSIONS", "");
    setVariable("VENDRA_SOMETHING_ELSE", "1");
    setVariable("VENDRA_LOG", "x=1");
    const ConfigurationImpl configuration;

    const auto root = rootFile().string();
    const std::string expected[] = {
        root + ":3: expected \"key = value\" but found \"just words\"",
        root + ":1: The key http.maxSessions takes an integer from 1 to 1000000, not 0.",
        root + ":2: There is no configuration key \"http.prot\".",
        root + ":4: The key http.ioThreads takes an integer, not \"many\".",
        root + ":5: The key security.maxBrowsers takes an integer, not \"yes\".",
        userFile().string() + ": cannot be read: not a file",
        "environment VENDRA_HTTP_IO_THREAD: there is no key of that name",
        "environment VENDRA_HTTP_MAX_SESSIONS: The key http.maxSessions takes an integer, not \"\".",
    };
    const auto problems = configuration.problems();
    EXPECT_EQ(problems.size(), std::size(expected));
    std::ifstream in(logFile());
    const std::string logged{std::istreambuf_iterator<char>(in), {}};
    for (const auto& text : expected) {
        EXPECT_NE(std::find(problems.begin(), problems.end(), text), problems.end()) << text;
        EXPECT_NE(logged.find("WARNING connector.configuration: " + text), std::string::npos) << text;
    }
    EXPECT_EQ(configuration.getInteger("http.ioThreads"), 2);
    EXPECT_EQ(configuration.getInteger("security.maxBrowsers"), 100);
    EXPECT_EQ(configuration.getInteger("http.maxSessions"), 7) << "one bad line must not spoil the rest";
}

TEST_F(ConfigurationTest, NothingStartsOnAPortOrARightThatCannotBe)
{
    const auto failure = [] {
        try {
            ConfigurationImpl();
        } catch (const ConfigurationError& error) {
            return std::string(error.what());
        }
        return std::string("accepted");
    };
    setVariable("VENDRA_HTTP_PORT", "70000");
    EXPECT_EQ(failure(),
              "environment VENDRA_HTTP_PORT: The key http.port takes an integer from 0 to 65535, not 70000.");
    setVariable("VENDRA_HTTP_PORT", "8080");
    EXPECT_EQ(failure(), "accepted");
    writeFile(rootFile(), "# TLS\nhttp.tls = yes\n");
    EXPECT_EQ(failure(), rootFile().string() + ":2: The key http.tls takes true or false, not \"yes\".");
}

TEST_F(ConfigurationTest, RelativeUserFolderIsIgnored)
{
    setVariable("XDG_CONFIG_HOME", "user");
    setVariable("HOME", folder_.string());
    std::filesystem::create_directories(folder_ / ".config" / "vendra");
    writeFile(folder_ / ".config" / "vendra" / "connector.conf", "http.ioThreads = 9");
    EXPECT_EQ(ConfigurationImpl().getInteger("http.ioThreads"), 9);
}

TEST_F(ConfigurationTest, TypesAndBoundsAreHeld)
{
    ConfigurationImpl configuration;
    EXPECT_EQ(configuration.getDouble("http.ioThreads"), 2.0);
    const auto text = [](const auto& run) -> std::string {
        try {
            run();
        } catch (const ConfigurationError& error) {
            return error.what();
        }
        return "accepted";
    };
    EXPECT_EQ(text([&] { configuration.getString("http.port"); }),
              "The key http.port is an integer; it cannot be read as text.");
    EXPECT_EQ(text([&] { configuration.get("http.prot"); }), "There is no configuration key \"http.prot\".");
    EXPECT_EQ(text([&] { configuration.set("http.port", 1.0); }), "The key http.port takes an integer, not a number.");
    EXPECT_EQ(text([&] { configuration.set("http.port", std::int64_t{-1}); }),
              "The key http.port takes an integer from 0 to 65535, not -1.");
    EXPECT_EQ(text([&] { configuration.set("http.maxSessions", std::int64_t{0}); }),
              "The key http.maxSessions takes an integer from 1 to 1000000, not 0.");
    EXPECT_EQ(text([&] { configuration.set("http.address", true); }),
              "The key http.address takes text, not true or false.");
    for (const auto* wrong : {"0x10", "1.5", "1 2", "", "99999999999999999999"})
        EXPECT_NE(text([&] { configuration.setFromText("http.port", wrong); }), "accepted") << wrong;
    EXPECT_EQ(configuration.getInteger("http.port"), 0);

    configuration.setFromText("http.allowedHosts", " a.example , b.example,, ");
    EXPECT_EQ(configuration.getList("http.allowedHosts"), (std::vector<std::string>{"a.example", "b.example"}));
    configuration.setFromText("security.tokenFile", " false ");
    EXPECT_FALSE(configuration.getBool("security.tokenFile"));
}

TEST_F(ConfigurationTest, ListenersHearOfChangesOnly)
{
    ConfigurationImpl configuration;
    std::vector<std::string> heard;
    const auto note = [&](const char* who) {
        return [&heard, who](const std::string& name, const Value& value) {
            heard.push_back(who + (" " + name) + " " + std::to_string(std::get<std::int64_t>(value)));
        };
    };
    configuration.addListener("", [](const auto&, const auto&) { throw std::runtime_error("a bad listener"); });
    const auto all = configuration.addListener("", note("all"));
    configuration.addListener("http.port", [&](const std::string& name, const Value& value) {
        note("port")(name, value);
        // It may use the configuration, and end others.
        configuration.removeListener(all);
        configuration.set("http.maxSessions", std::int64_t{5});
    });
    EXPECT_THROW(configuration.addListener("http.prot", note("none")), ConfigurationError);

    configuration.set("http.port", std::int64_t{80});
    configuration.set("http.port", std::int64_t{80});
    configuration.unset("http.port");
    EXPECT_EQ(heard, (std::vector<std::string>{"all http.port 80", "port http.port 80", "port http.port 0"}));
    EXPECT_EQ(configuration.getInteger("http.maxSessions"), 5);
}

// What a listener heard last is what holds.
TEST_F(ConfigurationTest, ListenersHearOfChangesInTheirOrder)
{
    ConfigurationImpl configuration;
    std::atomic<std::int64_t> last{0};
    std::atomic<int> inside{0};
    configuration.addListener("http.port", [&](const std::string&, const Value& value) {
        EXPECT_EQ(++inside, 1) << "one change after the other";
        last = std::get<std::int64_t>(value);
        --inside;
    });
    for (int round = 0; round < 300; ++round) {
        std::vector<std::jthread> threads;
        for (std::int64_t first : {1, 1'001, 2'001})
            threads.emplace_back([&configuration, first] {
                for (std::int64_t port = first; port < first + 10; ++port)
                    configuration.set("http.port", port);
            });
        threads.clear();
        ASSERT_EQ(last, configuration.getInteger("http.port")) << round;
    }
}

} // namespace
