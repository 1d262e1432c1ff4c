#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/fl/i18n.h"
#include "platform/matrix/Array.h"

namespace matrix {
namespace {

using namespace std::string_view_literals;

TEST(ArrayText, Utf8BecomesARowOfUnitsAndComesBack)
{
    const struct
    {
        std::string_view bytes;
        Dimensions sizes;
        std::string_view back;
    } cases[] = {
        {"", {0, 0}, ""},
        {"a", {1, 1}, "a"},
        {"nul\0inside"sv, {1, 10}, "nul\0inside"sv},
        {"\xE2\x82\xAC", {1, 1}, "\xE2\x82\xAC"},
        {"\xF0\x9F\x98\x80", {1, 2}, "\xF0\x9F\x98\x80"},
        {"bad \xF0\x9F\x98", {1, 5}, "bad \xEF\xBF\xBD"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.bytes));
        const ArrayPtr array = create(c.bytes.data(), c.bytes.size());
        EXPECT_EQ(array->dimensions(), c.sizes);
        EXPECT_EQ(get_string(array.get()), c.back);
    }
}

TEST(ArrayText, TakesTheUnitsInMemoryOrder)
{
    const ArrayPtr table = create({2, 2}, std::vector<char16_t>{u'a', u'c', u'b', u'd'});
    EXPECT_EQ(get_string(table.get()), "acbd");
}

TEST(ArrayText, OnlyCharArraysHaveText)
{
    EXPECT_EQ(get_string(nullptr), "");
    EXPECT_EQ(get_string(createScalar(65.0).get()), "");
    EXPECT_EQ(get_string(createScalar(std::uint16_t{65}).get()), "");
    EXPECT_EQ(get_string(nullptr, fl::i18n::codecvt_ustring_to_string("UTF-8", false)), "");
}

TEST(ArrayText, TheConverterDecidesAboutWhatCannotBeEncoded)
{
    const ArrayPtr array = create(u"a\xD83D"
                                  u"b\x20AC"sv);
    const auto text = [&array](const char* encoding, bool substitute) {
        return get_string(array.get(), fl::i18n::codecvt_ustring_to_string(encoding, substitute));
    };
    EXPECT_EQ(text("UTF-8", true), "a\xEF\xBF\xBD"
                                   "b\xE2\x82\xAC");
    EXPECT_EQ(text("us-ascii", true), "a?b?");
    EXPECT_THROW(text("UTF-8", false), std::range_error);
    EXPECT_THROW(text("US-ASCII", false), std::range_error);
}

} // namespace
} // namespace matrix
