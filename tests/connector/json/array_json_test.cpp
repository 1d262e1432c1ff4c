#include "connector/json/ArrayJson.h"

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializer.h"
#include "connector/json/JsonText.h"

namespace {

using namespace connector::json;
using namespace matrix;

template <class... Elements>
ArrayPtr cells(Elements... elements)
{
    std::vector<ArrayPtr> row;
    (row.push_back(std::move(elements)), ...);
    return createCellRow(std::move(row));
}

ArrayPtr structure(Dimensions size, std::vector<std::string> fields, std::vector<ArrayPtr> values)
{
    return create(std::move(size), StructData{std::move(fields), std::move(values)});
}

std::vector<ArrayPtr> list(ArrayPtr first, ArrayPtr second)
{
    std::vector<ArrayPtr> values;
    values.push_back(std::move(first));
    values.push_back(std::move(second));
    return values;
}

struct Row
{
    ArrayPtr array;
    const char* text;
};

template <class Integer>
Row extremes(const char* text)
{
    using Limits = std::numeric_limits<Integer>;
    return {create({1, 2}, std::vector<Integer>{Limits::min(), Limits::max()}), text};
}

std::vector<Row> allKinds()
{
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInf = std::numeric_limits<double>::infinity();
    std::vector<Row> rows;
    const auto add = [&](ArrayPtr array, const char* text) { rows.push_back({std::move(array), text}); };

    add(createEmpty(), "null");
    add(createScalar(5.0), "5.0");
    add(createScalar(-0.0), "-0.0");
    add(createScalar(kNaN), R"({"vx":"double","size":[1,1],"data":["NaN"]})");
    add(create({2, 2}, std::vector<double>{1, -kInf, kInf, -0.0}),
        R"({"vx":"double","size":[2,2],"data":[1.0,"-Infinity","Infinity",-0.0]})");
    add(create({0, 3}, std::vector<double>{}), R"({"vx":"double","size":[0,3],"data":[]})");
    add(create({1, 1, 2}, std::vector<double>{1, 2}), R"({"vx":"double","size":[1,1,2],"data":[1.0,2.0]})");
    add(create({1, 3}, std::vector<float>{0.1f, std::numeric_limits<float>::max(), -0.0f}),
        R"({"vx":"single","size":[1,3],"data":[0.10000000149011612,3.4028234663852886e+38,-0.0]})");
    add(createScalar(true), "true");
    add(create({2, 1}, std::vector<Logical>{{1}, {0}}), R"({"vx":"logical","size":[2,1],"data":[true,false]})");

    add(create(u""), R"("")");
    add(create(std::u16string_view(u"a\0é😀", 5)), "\"a\\u0000\u00e9\U0001F600\"");
    add(create({1, 0}, std::vector<char16_t>{}), R"({"vx":"char","size":[1,0],"data":[]})");
    add(create({1, 2}, std::vector<char16_t>{0xD83D, u'x'}), R"({"vx":"char","size":[1,2],"data":[55357,120]})");
    add(create({2, 1}, std::vector<char16_t>{u'a', u'b'}), R"({"vx":"char","size":[2,1],"data":[97,98]})");

    add(createScalar(std::int64_t{-7}), "-7");
    add(createScalar(std::int64_t{1} << 53), "9007199254740992");
    add(createScalar((std::int64_t{1} << 53) + 1), R"({"vx":"int64","size":[1,1],"data":["9007199254740993"]})");
    add(createScalar(std::uint64_t{5}), R"({"vx":"uint64","size":[1,1],"data":[5]})");
    rows.push_back(extremes<std::int8_t>(R"({"vx":"int8","size":[1,2],"data":[-128,127]})"));
    rows.push_back(extremes<std::uint8_t>(R"({"vx":"uint8","size":[1,2],"data":[0,255]})"));
    rows.push_back(extremes<std::int16_t>(R"({"vx":"int16","size":[1,2],"data":[-32768,32767]})"));
    rows.push_back(extremes<std::uint16_t>(R"({"vx":"uint16","size":[1,2],"data":[0,65535]})"));
    rows.push_back(extremes<std::int32_t>(R"({"vx":"int32","size":[1,2],"data":[-2147483648,2147483647]})"));
    rows.push_back(extremes<std::uint32_t>(R"({"vx":"uint32","size":[1,2],"data":[0,4294967295]})"));
    rows.push_back(
        extremes<std::int64_t>(R"({"vx":"int64","size":[1,2],"data":["-9223372036854775808","9223372036854775807"]})"));
    rows.push_back(extremes<std::uint64_t>(R"({"vx":"uint64","size":[1,2],"data":[0,"18446744073709551615"]})"));

    add(cells(), "[]");
    add(cells(createScalar(1.0), create(u"x"), cells(createScalar(false)), ArrayPtr()), R"([1.0,"x",[false],null])");
    add(create({0, 0}, std::vector<ArrayPtr>{}), R"({"vx":"cell","size":[0,0],"data":[]})");
    add(create({2, 1}, list(createScalar(1.0), create(u"x"))), R"({"vx":"cell","size":[2,1],"data":[1.0,"x"]})");

    add(createTyped("decimal", create(u"1.10")), R"({"vx":"decimal","value":"1.10"})");
    add(createTyped("set", cells(createTyped("x1_", nullptr))), R"({"vx":"set","value":[{"vx":"x1_","value":null}]})");
    add(structure({1, 1}, {"b", "a"}, list(createScalar(1.0), nullptr)), R"({"b":1.0,"a":null})");
    add(structure({1, 1}, {}, {}), "{}");
    add(structure({0, 1}, {"a"}, {}), R"({"vx":"struct","size":[0,1],"fields":["a"],"data":[]})");
    add(structure({1, 2}, {}, {}), R"({"vx":"struct","size":[1,2],"fields":[],"data":[[],[]]})");
    add(structure({2, 1}, {"a"}, list(createScalar(1.0), create(u"x"))),
        R"({"vx":"struct","size":[2,1],"fields":["a"],"data":[[1.0],["x"]]})");
    add(structure({1, 1}, {"a", "vx"}, list(createScalar(1.0), create(u"double"))),
        R"({"vx":"struct","size":[1,1],"fields":["a","vx"],"data":[[1.0,"double"]]})");
    return rows;
}

TEST(ArrayJson, EveryKindOfArrayHasOneTextAndComesBackFromIt)
{
    for (const auto& [array, text] : allKinds()) {
        EXPECT_EQ(write(toJson(*array)), text);
        const auto again = fromJson(parse(text));
        EXPECT_TRUE(identical(*array, *again)) << text << " came back as " << write(toJson(*again));
    }
}

TEST(ArrayJson, AWideStructKeepsTheOrderOfItsFields)
{
    std::vector<std::pair<std::string, ArrayPtr>> fields;
    for (std::size_t i = kMaxOrderedMembers + 1; i > 0; --i)
        fields.emplace_back("f" + std::to_string(i), createScalar(static_cast<double>(i)));
    const auto array = createStruct(std::move(fields));
    EXPECT_TRUE(identical(*array, *fromJson(parse(write(toJson(*array))))));
}

TEST(ArrayJson, WhatPeopleWriteIsUnderstood)
{
    const std::pair<const char*, const char*> rows[] = {
        {"9223372036854775807", R"({"vx":"int64","size":[1,1],"data":["9223372036854775807"]})"},
        {"9223372036854775808", R"({"vx":"uint64","size":[1,1],"data":["9223372036854775808"]})"},
        {R"({"vx":"double","size":[1,2],"data":[1,2.5]})", R"({"vx":"double","size":[1,2],"data":[1.0,2.5]})"},
        {R"({"vx":"int8","size":[1,1],"data":["-5"]})", R"({"vx":"int8","size":[1,1],"data":[-5]})"},
        {R"({"data":[3.0],"size":[1,1],"vx":"uint8"})", R"({"vx":"uint8","size":[1,1],"data":[3]})"},
        {R"({"vx":"double","size":[1,1,1,1],"data":[2]})", "2.0"},
        {R"({"vx":"logical","size":[0,1099511627776],"data":[]})",
         R"({"vx":"logical","size":[0,1099511627776],"data":[]})"},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(write(toJson(*fromJson(parse(text)))), expected);
}

TEST(ArrayJson, WhatIsNoArrayIsRefusedWithItsPlace)
{
    const std::pair<const char*, const char*> rows[] = {
        {R"({"vx":"matrix","size":[1,1],"data":[1]})", "vx: unknown class \"matrix\""},
        {R"({"vx":5})", "vx: expected a string"},
        {R"({"vx":"unknown","size":[1,1],"data":[1]})", "vx: unknown class"},
        {R"({"vx":"typed","value":1})", "vx: No kind of values can be called \"typed\"."},
        {R"({"vx":"a b","value":1})", "vx: No kind of values can be called \"a b\"."},
        {R"({"vx":"","value":1})", "vx: No kind of values can be called \"\"."},
        {R"({"vx":"date","value":1,"size":[1,1]})", "unknown member \"size\" of a value of the kind date"},
        {R"({"vx":"date","value":{"vx":"int8","size":[1,1],"data":[300]}})", "value.data[0]: expected an integer"},
        {R"({"vx":"double","data":[1]})", "size: expected an array"},
        {R"({"vx":"double","size":[1],"data":[1]})", "size: expected two numbers or more but found 1"},
        {R"({"vx":"double","size":[1,-1],"data":[]})", "size[1]: expected an integer from 0"},
        {R"({"vx":"double","size":[1,1.5],"data":[]})", "size[1]: expected an integer"},
        {R"({"vx":"double","size":[4294967296,4294967296],"data":[]})", "size: "},
        {R"({"vx":"double","size":[1000000,1000000],"data":[]})", "data: expected 1000000000000 elements"},
        {R"({"vx":"double","size":[1,1],"data":[1,2]})", "data: expected 1 elements, as the size says, but found 2"},
        {R"({"vx":"double","size":[1,1],"data":["nan"]})", "data[0]: expected a number, \"NaN\""},
        {R"({"vx":"double","size":[1,1],"data":[true]})", "data[0]: expected a number but found a truth value"},
        {R"({"vx":"double","size":[1,1],"data":[1],"x":1})", "unknown member \"x\""},
        {R"({"vx":"double","size":[1,1],"data":[1],"fields":[]})", "unknown member \"fields\""},
        {R"({"vx":"single","size":[1,1],"data":[1e39]})", "data[0]: the number"},
        {R"({"vx":"int8","size":[1,2],"data":[1,128]})", "data[1]: expected an integer from -128 to 127 but found"},
        {R"({"vx":"uint64","size":[1,1],"data":["18446744073709551616"]})", "data[0]: expected an integer from 0 to"},
        {R"({"vx":"uint64","size":[1,1],"data":[-1]})", "data[0]: expected an integer from 0"},
        {R"({"vx":"int64","size":[1,1],"data":[" 5"]})", "data[0]: expected an integer"},
        {R"({"vx":"logical","size":[1,1],"data":[1]})", "data[0]: expected true or false"},
        {R"({"vx":"char","size":[1,1],"data":[65536]})", "data[0]: expected an integer from 0 to 65535"},
        {R"({"vx":"cell","size":[1,1],"data":[{"vx":"int8","size":[1,1],"data":[null]}]})", "data[0].data[0]: exp"},
        {R"({"vx":"struct","size":[1,1],"data":[[]]})", "fields: expected an array"},
        {R"({"vx":"struct","size":[1,1],"fields":["a"],"data":[[]]})", "data[0]: expected 1 values, one per field"},
        {R"({"vx":"struct","size":[1,1],"fields":["a","a"],"data":[[1,2]]})", ""},
        {R"({"a":[1,{"b":{"vx":"x"}}]})", "a[1].b.vx: unknown class"},
    };
    for (const auto& [text, expected] : rows) {
        try {
            fromJson(parse(text));
            ADD_FAILURE() << text;
        } catch (const JsonError& error) {
            EXPECT_EQ(std::string(error.what()).substr(0, std::string(expected).size()), expected) << text;
        }
    }
}

TEST(ArrayJson, WhatCannotBeWrittenSaysWhy)
{
    auto deep = createScalar(1.0);
    for (std::size_t i = 0; i < kMaxWriteDepth; ++i)
        deep = cells(std::move(deep));
    EXPECT_THROW(toJson(*deep), JsonError);
    std::vector<ArrayPtr> one;
    one.push_back(nullptr);
    EXPECT_THROW(toJson(*structure({1, 1}, {"\xFF"}, std::move(one))), JsonError);
}

} // namespace
