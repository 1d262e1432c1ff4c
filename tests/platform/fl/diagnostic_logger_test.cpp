#include "platform/fl/diagnostic_logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace fl::log {
namespace {

namespace blog = boost::log;

/// What is written to std::clog while it lives.
class ClogCapture
{
public:
    ClogCapture() : before_(std::clog.rdbuf(text_.rdbuf())) {}
    ~ClogCapture() { std::clog.rdbuf(before_); }
    ClogCapture(const ClogCapture&) = delete;
    ClogCapture& operator=(const ClogCapture&) = delete;

    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* before_;
};

std::string logged(const diagnostic_logger& logger, unsigned level, std::string_view text)
{
    const ClogCapture capture;
    logger.log(level, text);
    return capture.text();
}

TEST(DiagnosticLogger, WritesOneLineWithTimeLevelAndName)
{
    const diagnostic_logger logger("test::line");
    setMask("test::line", 63);
    const std::pair<unsigned, const char*> levels[] = {
        {level::kFatal, "FATAL"},
        {level::kError, "ERROR"},
        {level::kWarning, "WARNING"},
        {level::kInfo, "INFO"},
        {level::kDebug, "DEBUG"},
        {level::kTrace, "TRACE"},
        {level::kTrace | level::kError, "ERROR"},
    };
    for (const auto& [bits, name] : levels) {
        std::string line = logged(logger, bits, "hello");
        std::replace_if(
            line.begin(), line.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '9');
        EXPECT_EQ(line, "9999-99-99T99:99:99.999Z " + std::string(name) + " test::line: hello\n");
    }
}

TEST(DiagnosticLogger, MessagesForgeNoLines)
{
    const diagnostic_logger logger("test\nforged");
    const std::pair<std::string, std::string> cases[] = {
        {"a\nb\r\nc", "a\\nb\\r\\nc"},
        {"tab\tbell\a", "tab\\tbell\\x07"},
        {"\x1B[2J", "\\x1b[2J"},
        {std::string("nul\0.", 5), "nul\\x00."},
        {"C1 \xC2\x9B"
         "31m",
         "C1 \\x9b31m"},
        {"already \\n", "already \\\\n"},
        {"gr\xC3\xBC\xC3\x9F \xC2\xA0", "gr\xC3\xBC\xC3\x9F \xC2\xA0"},
        {"cut \xC2", "cut \xC2"},
    };
    for (const auto& [text, escaped] : cases) {
        const std::string line = logged(logger, level::kError, text);
        EXPECT_NE(line.find(" ERROR test\\nforged: " + escaped + "\n"), std::string::npos) << line;
        EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
    }
}

TEST(DiagnosticLogger, MasksHoldByNameForExistingAndFutureLoggers)
{
    const diagnostic_logger existing("test::mask");
    EXPECT_TRUE(existing.admits(level::kWarning));
    EXPECT_FALSE(existing.admits(level::kInfo));
    EXPECT_EQ(logged(existing, level::kInfo, "not to be seen"), "");

    setMask("test::mask", level::kInfo);
    const diagnostic_logger future("test::mask");
    for (const auto* logger : {&existing, &future}) {
        EXPECT_NE(logged(*logger, level::kInfo, "seen").find("seen"), std::string::npos);
        EXPECT_EQ(logged(*logger, level::kError, "not to be seen"), "");
    }
}

TEST(DiagnosticLogger, TheStarSetsThoseWithoutAMaskOfTheirOwn)
{
    const diagnostic_logger own("test::star::own");
    const diagnostic_logger other("test::star::other");
    setMasks("test::star::own=0,*=16");
    EXPECT_FALSE(own.admits(63));
    EXPECT_TRUE(other.admits(level::kDebug));
    EXPECT_FALSE(other.admits(level::kError));
    EXPECT_TRUE(diagnostic_logger("test::star::later").admits(level::kDebug));
    setMask("*", level::kDefaultMask);
    EXPECT_FALSE(own.admits(63));
    EXPECT_FALSE(other.admits(level::kDebug));
}

TEST(DiagnosticLogger, MalformedMasksAreNamedAndNothingIsApplied)
{
    const diagnostic_logger logger("test::malformed");
    const std::pair<const char*, const char*> cases[] = {
        {"test::malformed", "\"test::malformed\""},
        {"test::malformed=16,second", "\"second\""},
        {"test::malformed=16,=4", "\"=4\""},
        {"test::malformed=16,,a=4", "\"\""},
        {"test::malformed=16,", "\"test::malformed=16,\""},
        {"test::malformed=16,b=", "\"b=\""},
        {"test::malformed=16,b=-1", "\"b=-1\""},
        {"test::malformed=16,b=+1", "\"b=+1\""},
        {"test::malformed=16,b=0x10", "\"b=0x10\""},
        {"test::malformed=16,b=4 ", "\"b=4 \""},
        {"test::malformed=16,b=c=4", "\"b=c=4\""},
        {"test::malformed=16,b=4294967296", "\"b=4294967296\""},
    };
    for (const auto& [masks, part] : cases) {
        try {
            setMasks(masks);
            ADD_FAILURE() << "accepted: " << masks;
        } catch (const std::invalid_argument& error) {
            EXPECT_NE(std::string(error.what()).find(part), std::string::npos) << error.what();
        }
        EXPECT_FALSE(logger.admits(level::kDebug)) << masks;
    }
    EXPECT_NO_THROW(setMasks(""));
}

// The core of Boost.Log is shared: the host prints its own records only, and marks them so that others can tell.
TEST(DiagnosticLogger, KeepsItsRecordsApartFromThoseOfOtherLibraries)
{
    const diagnostic_logger logger("test::apart");
    {
        const ClogCapture capture;
        blog::attribute_set attributes;
        attributes["Channel"] = blog::attributes::constant<std::string>("foreign");
        if (blog::record record = blog::core::get()->open_record(attributes)) {
            record.attribute_values().insert("Message",
                                             blog::attributes::make_attribute_value(std::string("foreign message")));
            blog::core::get()->push_record(std::move(record));
        }
        EXPECT_EQ(capture.text(), "");
    }

    std::string seenName;
    unsigned seenLevel = 0;
    blog::core::get()->set_filter([&](const blog::attribute_value_set& values) {
        seenName = blog::extract_or_default<std::string>("VendraLogger", values, std::string("none"));
        seenLevel = blog::extract_or_default<unsigned>("VendraLevel", values, 0u);
        return false;
    });
    EXPECT_EQ(logged(logger, level::kError, "refused by the filter"), "");
    blog::core::get()->reset_filter();
    EXPECT_EQ(seenName, "test::apart");
    EXPECT_EQ(seenLevel, level::kError);
}

/// Runs in a process of its own, where no logger has been made yet.
[[noreturn]] void logWithEnvironment(const char* masks)
{
    setenv("VENDRA_LOG", masks, 1);
    const diagnostic_logger logger("test::environment");
    setenv("VENDRA_LOG", "test::late=32", 1);
    const diagnostic_logger late("test::late");
    logger.log(level::kDebug, "debug text");
    logger.log(level::kError, "error text");
    late.log(level::kTrace, "late text");
    std::exit(0);
}

TEST(DiagnosticLoggerDeathTest, TheEnvironmentIsReadOnceBeforeTheFirstLogger)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(logWithEnvironment("test::environment=16,test::x=1"), testing::ExitedWithCode(0),
                "^[^\n]* DEBUG test::environment: debug text\n$");
    EXPECT_EXIT(logWithEnvironment("test::environment=16,*"), testing::ExitedWithCode(0),
                "^[^\n]* WARNING fl::log: VENDRA_LOG is ignored[^\n]*\"\\*\"[^\n]*\n"
                "[^\n]* ERROR test::environment: error text\n$");
}

} // namespace
} // namespace fl::log
