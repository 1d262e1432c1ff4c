#include "platform/fl/i18n.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace fl::i18n {
namespace {

using namespace std::string_literals;

TEST(I18n, InvalidUtf8IsReplacedByMaximalSubparts)
{
    const struct
    {
        const char* name;
        std::string bytes;
        std::u16string units;
    } cases[] = {
        {"lone continuation", "\x80", u"\uFFFD"},
        {"overlong of 2", "\xC0\xAF", u"\uFFFD\uFFFD"},
        {"overlong of 2, highest", "\xC1\xBF", u"\uFFFD\uFFFD"},
        {"overlong of 3", "\xE0\x9F\xBF", u"\uFFFD\uFFFD\uFFFD"},
        {"overlong of 4", "\xF0\x8F\xBF\xBF", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"high surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
        {"low surrogate", "\xED\xBF\xBF", u"\uFFFD\uFFFD\uFFFD"},
        {"beyond U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"lead bytes that never occur", "\xF5\xFE\xFF", u"\uFFFD\uFFFD\uFFFD"},
        {"2 cut at the end", "a\xC3", u"a\uFFFD"},
        {"3 cut at the end", "a\xE2\x82", u"a\uFFFD"},
        {"4 cut at the end", "a\xF0\x9F\x98", u"a\uFFFD"},
        {"3 cut by a letter", "\xE2\x82z", u"\uFFFDz"},
        {"4 cut by another sequence", "\xF0\x9F\xC3\xA9", u"\uFFFD\u00E9"},
        {"the standard's own example", "\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64",
         u"a\uFFFD\uFFFD\uFFFDb\uFFFDc\uFFFD\uFFFDd"},
        {"in the middle of long ASCII", "0123456789\xFF" + std::string(20, 'x'),
         u"0123456789\uFFFD" + std::u16string(20, u'x')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(utf8ToUtf16(c.bytes), c.units);
        EXPECT_EQ(toValidUtf8(c.bytes), utf16ToUtf8(c.units));
        EXPECT_FALSE(isValidUtf8(c.bytes));
        EXPECT_TRUE(isValidUtf8(toValidUtf8(c.bytes)));
    }
}

TEST(I18n, ValidTextConvertsBothWays)
{
    const std::pair<std::string, std::u16string> cases[] = {
        {"", u""},
        {"a\0b"s, u"a\0b"s},
        {"\x7F\xC2\x80", u"\x7F\u0080"},
        {"\xDF\xBF\xE0\xA0\x80", u"\u07FF\u0800"},
        {"\xED\x9F\xBF\xEE\x80\x80", u"\uD7FF\uE000"},
        {"\xEF\xBF\xBF\xF0\x90\x80\x80", u"\uFFFF\U00010000"},
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
    };
    for (const auto& [bytes, units] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        EXPECT_EQ(utf8ToUtf16(bytes), units);
        EXPECT_EQ(utf16ToUtf8(units), bytes);
        EXPECT_EQ(toValidUtf8(bytes), bytes);
        EXPECT_TRUE(isValidUtf8(bytes));
        EXPECT_TRUE(isValidUtf16(units));
    }
}

// The ASCII runs are taken in words; every place of a word must be seen.
TEST(I18n, FindsTheOneOddCharacterAnywhere)
{
    for (std::size_t size = 1; size < 20; ++size) {
        for (std::size_t place = 0; place < size; ++place) {
            for (const char16_t odd : {u'\u0080', u'\u0100', u'\uFF00'}) {
                std::u16string units(size, u'x');
                units[place] = odd;
                const std::string bytes =
                    std::string(place, 'x') + utf16ToUtf8(std::u16string(1, odd)) + std::string(size - place - 1, 'x');
                ASSERT_EQ(utf16ToUtf8(units), bytes) << size << ' ' << place;
                ASSERT_EQ(utf8ToUtf16(bytes), units) << size << ' ' << place;
            }
        }
    }
}

TEST(I18n, InvalidUtf16IsReplacedOrRefusedWithItsPosition)
{
    const struct
    {
        std::u16string units;
        std::string replaced;
        std::string ascii;
        const char* position;
    } cases[] = {
        {{0xD800}, "\xEF\xBF\xBD", "?", "0xD800 at position 0 "},
        {{u'a', 0xDBFF}, "a\xEF\xBF\xBD", "a?", "0xDBFF at position 1 "},
        {{0xDC00, u'a'},
         "\xEF\xBF\xBD"
         "a",
         "?a",
         "0xDC00 at position 0 "},
        {{0xDE00, 0xD83D}, "\xEF\xBF\xBD\xEF\xBF\xBD", "??", "0xDE00 at position 0 "},
        {{0xD83D, 0xD83D, 0xDE00}, "\xEF\xBF\xBD\xF0\x9F\x98\x80", "??", "0xD83D at position 0 "},
        {{0xD83D, 0xDE00, 0xDE00}, "\xF0\x9F\x98\x80\xEF\xBF\xBD", "??", "0xDE00 at position 2 "},
    };
    const codecvt_ustring_to_string strict("utf-8", false);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.position);
        EXPECT_FALSE(isValidUtf16(c.units));
        EXPECT_EQ(utf16ToUtf8(c.units), c.replaced);
        EXPECT_EQ(codecvt_ustring_to_string("UTF-8", true)(c.units), c.replaced);
        EXPECT_EQ(codecvt_ustring_to_string("US-ASCII", true)(c.units), c.ascii);
        try {
            strict(c.units);
            ADD_FAILURE() << "accepted";
        } catch (const std::range_error& error) {
            EXPECT_NE(std::string(error.what()).find(c.position), std::string::npos) << error.what();
        }
    }
    EXPECT_EQ(strict(u"\U0001F600"), "\xF0\x9F\x98\x80");
}

TEST(I18n, AsciiRefusesWhatUtf8Encodes)
{
    const codecvt_ustring_to_string strict("us-ASCII", false);
    EXPECT_EQ(strict(u"plain"), "plain");
    EXPECT_THROW(strict(u"plain \u00E9"), std::range_error);
    EXPECT_EQ(codecvt_ustring_to_string("US-ASCII", true)(u"\u00E9 \U0001F600."), "? ?.");
}

TEST(I18n, UnknownEncodingsAreNamed)
{
    for (const char* encoding : {"", "UTF-16", "UTF-8 ", "UTF"}) {
        try {
            codecvt_ustring_to_string(encoding, true);
            ADD_FAILURE() << encoding;
        } catch (const std::invalid_argument& error) {
            EXPECT_NE(std::string(error.what()).find("\"" + std::string(encoding) + "\""), std::string::npos);
        }
    }
    EXPECT_THROW(codecvt_ustring_to_string(nullptr, true), std::invalid_argument);
}

} // namespace
} // namespace fl::i18n
