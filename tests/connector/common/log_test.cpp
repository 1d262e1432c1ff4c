#include "connector/common/Log.h"

#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/fl/diagnostic_logger.h"

namespace {

using namespace connector::common;
using enum LogLevel;

class Log : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = (std::filesystem::temp_directory_path() / "connector-log-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
    }

    void TearDown() override
    {
        setLogDestination("");
        setLogSpecification("");
        std::filesystem::remove_all(folder_);
    }

    std::filesystem::path file() const { return folder_ / "a.log"; }

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        std::ifstream in(file());
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }

    std::filesystem::path folder_;
};

TEST_F(Log, TheMostSpecificPartOfTheSpecificationDecides)
{
    struct Row
    {
        const char* specification;
        const char* source;
        LogLevel highest; ///< that is logged
    };
    const Row rows[] = {
        {"", "connector.http", warning},
        {"trace", "connector.http", trace},
        {"off", "connector.http", off},
        {"connector.http=debug", "connector.http", debug},
        {"connector.http=debug", "connector.http.engine", debug},
        {"connector.http=debug", "connector.https", warning},
        {"connector.http=debug", "connector", warning},
        {"connector.http.engine=off,connector.http=debug", "connector.http.engine.io", off},
        {"connector=info,*=error", "connector.http", info},
        {"connector=info,*=error", "other", error},
        {"connector=info,connector=debug", "connector", debug},
        {" error , connector = info ", "connector", info},
        {"trace,info", "connector", info},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.specification) + " / " + row.source);
        setLogSpecification(row.specification);
        // Twice: the second answer comes from what the first one left behind.
        for (int round = 0; round < 2; ++round) {
            for (const auto level : {error, warning, info, debug, trace})
                EXPECT_EQ(isLogged(row.source, level), level <= row.highest) << static_cast<int>(level);
            EXPECT_FALSE(isLogged(row.source, off));
        }
    }
}

TEST_F(Log, AWrongSpecificationIsNamedAndChangesNothing)
{
    setLogSpecification("debug");
    const std::pair<const char*, const char*> rows[] = {
        {"loud", "\"loud\""},
        {"a=info,b=loud", "\"b=loud\""},
        {"a=info,", "\"\""},
        {"=info", "\"=info\""},
        {"a=info=off", "\"a=info=off\""},
        {"a..b=info", "\"a..b=info\""},
        {"a b=info", "\"a b=info\""},
        {"INFO", "\"INFO\""},
    };
    for (const auto& [specification, named] : rows) {
        try {
            setLogSpecification(specification);
            ADD_FAILURE() << specification;
        } catch (const std::invalid_argument& failure) {
            EXPECT_NE(std::string(failure.what()).find(named), std::string::npos) << failure.what();
        }
    }
    EXPECT_TRUE(isLogged("a", debug));
}

TEST_F(Log, LinesStayOneLineAndForgeNothing)
{
    setLogDestination("file:" + file().string());
    log("connector.test", error, "one\ntwo\r\x1b[31m\\ \xC2\x9B \xFF \xC3\xA9");
    log("connector.test", info, "not logged by default");
    log("connector.test", warning, std::string(70'000, 'x'));

    const auto written = lines();
    ASSERT_EQ(written.size(), 2u);
    const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (ERROR|WARNING) connector\.test: .*)");
    EXPECT_TRUE(std::regex_match(written[0], form)) << written[0];
    EXPECT_NE(written[0].find(R"(one\ntwo\r\x1b[31m\\ \x9b )"
                              "\xEF\xBF\xBD \xC3\xA9"),
              std::string::npos)
        << written[0];
    EXPECT_LT(written[1].size(), 66'000u);
    EXPECT_NE(written[1].find("(4464 bytes more)"), std::string::npos);
}

TEST_F(Log, TheConnectorsAndTheHostsLogKeepApart)
{
    setLogDestination("file:" + file().string());
    testing::internal::CaptureStderr();
    fl::log::diagnostic_logger("host.logger").log(fl::log::level::kError, "of the host");
    log("connector.test", error, "of the connector");
    const auto console = testing::internal::GetCapturedStderr();

    ASSERT_EQ(lines().size(), 1u);
    EXPECT_NE(lines()[0].find("of the connector"), std::string::npos);
    EXPECT_NE(console.find("of the host"), std::string::npos);
    EXPECT_EQ(console.find("of the connector"), std::string::npos);

    testing::internal::CaptureStderr();
    setLogDestination("none");
    log("connector.test", error, "nowhere");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(isLogged("connector.test", error));
    setLogDestination("");
    EXPECT_TRUE(isLogged("connector.test", error));
}

TEST_F(Log, DestinationsThatCannotBeAreRefusedAndTheOldOneStays)
{
    setLogDestination("file:" + file().string());
    EXPECT_THROW(setLogDestination("syslog"), std::invalid_argument);
    EXPECT_THROW(setLogDestination("file:"), std::invalid_argument);
    EXPECT_THROW(setLogDestination("file:" + (folder_ / "no" / "a.log").string()), std::system_error);
    EXPECT_THROW(setLogDestination("file:" + folder_.string()), std::system_error);
    log("connector.test", error, "still here");
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(Log, AFileIsAppendedToAndRotatedAtTenMebibytes)
{
    {
        std::ofstream before(file());
        before << "before\n";
    }
    setLogDestination("file:" + file().string());
    const std::string text(60'000, 'x');
    // 175 lines a file: enough for seven of them.
    for (int i = 0; i < 175 * 6 + 100; ++i)
        log("connector.test", error, text);
    setLogDestination("");

    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
        ++files;
        EXPECT_LE(entry.file_size(), 10u << 20) << entry.path();
        if (entry.path() != file()) {
            EXPECT_GT(entry.file_size(), 10'000'000u) << entry.path();
        }
    }
    EXPECT_EQ(files, 6u) << "the current file and five kept";
    EXPECT_EQ(std::filesystem::status(folder_ / "a.log.1").permissions() & std::filesystem::perms::others_all,
              std::filesystem::perms::none);
}

} // namespace
