#include "platform/fl/log_text.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

std::string shortened(std::string_view text, std::size_t maxBytes)
{
    std::string line = "text: ";
    fl::log_text::appendShortened(line, text, maxBytes);
    return line;
}

TEST(LogText, timesAreUtcToTheMillisecond)
{
    const auto at = [](std::int64_t count) {
        return fl::log_text::timeText(system_clock::time_point(milliseconds(count)));
    };
    EXPECT_EQ(at(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(at(1'709'251'199'007), "2024-02-29T23:59:59.007Z");
    EXPECT_EQ(at(-1), "1969-12-31T23:59:59.999Z");
}

TEST(LogText, longTextsKeepTheirBeginning)
{
    EXPECT_EQ(shortened("12345", 5), "text: 12345");
    EXPECT_EQ(shortened("12345", 3), "text: 123 … (2 bytes more)");
    EXPECT_EQ(shortened("1ä2", 2), "text: 1 … (3 bytes more)"); // a character is not cut
    EXPECT_EQ(shortened("\xff\n\x1b", 9), "text: \xEF\xBF\xBD\\n\\x1b");
    EXPECT_EQ(shortened("\x80\x80\x80", 2), "text: \xEF\xBF\xBD\xEF\xBF\xBD … (1 bytes more)");
}

} // namespace
