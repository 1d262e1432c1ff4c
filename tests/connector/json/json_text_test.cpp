#include "connector/json/JsonText.h"

#include <chrono>
#include <cmath>
#include <limits>
#include <string>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <gtest/gtest.h>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializer.h"

namespace {

using namespace connector::json;

std::string rewritten(std::string_view text) { return write(parse(text)); }

template <class Read>
std::string failureOf(Read read)
{
    try {
        read();
    } catch (const JsonError& error) {
        return error.what();
    }
    return "accepted";
}

std::string failure(std::string_view text, const Limits& limits = {})
{
    return failureOf([&] { parse(text, limits); });
}

TEST(JsonText, WhatIsReadIsWrittenInItsShortestForm)
{
    const std::pair<const char*, const char*> rows[] = {
        {" null ", "null"},
        {"\t[ true , false ]\r\n", "[true,false]"},
        {"{ \"b\" : 1 , \"a\" : { } , \"\" : [ ] }", R"({"b":1,"a":{},"":[]})"},
        {R"("\u0041\u00e9\u6f22\ud83d\ude00\/\b\f\n\r\t\"\\\u0000\u001f")",
         "\"A\u00e9\u6f22\U0001F600/\\b\\f\\n\\r\\t\\\"\\\\\\u0000\\u001f\""},
        {"\"\x7F\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\"",
         "\"\x7F\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\""},
        {"[0,-0,-1,1E2,1e+2,1e-2,0.5]", "[0,0,-1,100.0,100.0,0.01,0.5]"},
        {"[9223372036854775807,-9223372036854775808]", "[9223372036854775807,-9223372036854775808]"},
        {"[9223372036854775808,18446744073709551615]", "[9223372036854775808,18446744073709551615]"},
        {"[18446744073709551616,-9223372036854775809]", "[18446744073709551616.0,-9223372036854775808.0]"},
        {"[5.0,-0.0,1e300,5e-324,0.1,1.7976931348623157e308]", "[5.0,-0.0,1e+300,5e-324,0.1,1.7976931348623157e+308]"},
        {"[1e-400,-0.000e-9999999999999999999999,0e9999999999999999999999]", "[0.0,-0.0,0.0]"},
        {"[0.1e-9223372036854775807,0.0e9223372036854775807]", "[0.0,0.0]"},
    };
    for (const auto& [text, expected] : rows) {
        ASSERT_EQ(failure(text), "accepted") << text;
        EXPECT_EQ(rewritten(text), expected);
    }
}

TEST(JsonText, WhatIsPassedOnStaysAsItWasWritten)
{
    const std::string text = R"({"data": { "a" : [1.50, "\u00e9"] } ,"n\u0061me":"\u00e9 \"x\"","":null})";
    const std::string padded = "\n" + text + " ";
    const auto alone = parseRaw(padded);
    ASSERT_EQ(alone.size(), 1);
    const std::string array = "[ " + text + R"( , [{"data":1}],"{", {}])";
    const auto values = parseRaw(array);
    ASSERT_EQ(values.size(), 4);
    for (const auto& value : {alone[0], values[0]}) {
        EXPECT_TRUE(value.isObject());
        EXPECT_EQ(value.text(), text);
        EXPECT_EQ(value.member("data"), R"({ "a" : [1.50, "\u00e9"] })");
        EXPECT_EQ(rawString(value.member("name")), "\u00e9 \"x\"");
        EXPECT_EQ(value.member(""), "null");
        EXPECT_EQ(value.member("a"), "");
    }
    EXPECT_FALSE(values[1].isObject());
    EXPECT_EQ(values[1].text(), R"([{"data":1}])");
    EXPECT_FALSE(values[2].isObject());
    EXPECT_EQ(rawString(values[2].text()), "{");
    EXPECT_TRUE(values[3].isObject());
    EXPECT_EQ(rawString("12"), std::nullopt);

    EXPECT_EQ(failureOf([&] { parseRaw("5"); }), "expected an array or an object, found the integer 5");
}

TEST(JsonText, WhatIsPassedOnIsLookedAtAllTheSame)
{
    // Nobody can tell where what is wrong ends.
    for (const char* wrong : {"", "[", "[1,]", "[] []", "[1 2]", R"([{"a":"x])", R"({"a":[1)", R"({"a":1}})"}) {
        EXPECT_NE(failure(wrong), "accepted") << wrong;
        EXPECT_EQ(failureOf([&] { parseRaw(wrong); }), failure(wrong)) << wrong;
    }
    std::string many = "{";
    for (char name = 'A'; name <= 'z'; ++name)
        many += std::string(name == 'A' ? "\"" : ",\"") + (name == '\\' ? 'B' : name) + (name == 'y' ? "\":2" : "\":1");
    const std::vector<std::pair<std::string, std::string>> faults{
        {R"({"x":1,"data":{"a":1,"b":2,"a":3,"b":4},"y":2})", "data"},
        {R"({"x":1,"data":"\ud800","y":2})", "data"},
        {R"({"x":1,"data":1e999,"y":2})", "data"},
        {"{\"x\":1,\"data\":\"\xff\",\"y\":2}", "data"},
        {R"({"x":1,"data":tru,"y":2})", "data"},
        {R"({"x":1,"data":{"a" 1},"y":2})", "data"},
        {R"({"x":1,"data":"],}","b":"\q","y":2})", "b"},
        {R"({"x":1,"y":2,"x":3})", ""},
        {many + "}", ""},
        {R"({"x":1 "y":2})", "x"},
    };
    for (const auto& [text, member] : faults) {
        SCOPED_TRACE(text);
        const auto alone = parseRaw(text);
        const std::string array = "[ 1, " + text + R"( ,"]"])";
        const auto values = parseRaw(array);
        ASSERT_EQ(alone.size(), 1u);
        ASSERT_EQ(values.size(), 3u);
        EXPECT_EQ(values[0].fault(), nullptr);
        EXPECT_EQ(values[2].fault(), nullptr);
        EXPECT_EQ(values[2].text(), "\"]\"");
        for (const auto& value : {alone[0], values[1]}) {
            ASSERT_NE(value.fault(), nullptr);
            const auto whole = failure(text);
            EXPECT_EQ(value.fault()->what, whole.substr(whole.find(": ") + 2));
            EXPECT_EQ(value.fault()->member, member);
            EXPECT_EQ(value.member("data"), value.fault()->member == "b" ? "\"],}\"" : "");
            if (member != "x") {
                EXPECT_EQ(value.member("x"), "1");
                EXPECT_EQ(value.member("y"), "2");
            }
        }
    }
    // The limits hold for each by itself.
    Limits limits;
    limits.members = 4;
    const auto values = parseRaw(R"([[1,2,3],[1,2,3,4],{"a":[1,2,3]},{"a":1}])", limits);
    ASSERT_EQ(values.size(), 4u);
    EXPECT_EQ(values[0].fault(), nullptr);
    EXPECT_NE(values[1].fault(), nullptr);
    EXPECT_NE(values[2].fault(), nullptr);
    EXPECT_EQ(values[3].fault(), nullptr);
    EXPECT_THROW(parseRaw("[1,2,3,4,5]", limits), JsonError);
    limits.loneSurrogates = true;
    EXPECT_EQ(parse(R"("\ud800\u0041\udc00\ud83d\ude00")", limits).extract<std::string>(),
              "\xEF\xBF\xBD"
              "A\xEF\xBF\xBD\xF0\x9F\x98\x80");
}

TEST(JsonText, NumbersKeepTheirKind)
{
    EXPECT_TRUE(parse("5").isInteger());
    EXPECT_TRUE(parse("5").type() == typeid(Poco::Int64));
    EXPECT_TRUE(parse("9223372036854775808").type() == typeid(Poco::UInt64));
    EXPECT_TRUE(parse("5.0").type() == typeid(double));
    EXPECT_TRUE(parse("18446744073709551616").type() == typeid(double));
    EXPECT_TRUE(std::signbit(parse("-0.0").extract<double>()));
}

TEST(JsonText, WhatIsNotJsonIsRefusedWithItsPlace)
{
    const std::pair<std::string, const char*> rows[] = {
        {"", "byte 0: expected a value but found the end of the text"},
        {"\xEF\xBB\xBF[]", "byte 0: expected a value but found the byte 0xef"},
        {"[1,]", "byte 3: expected a value but found ']'"},
        {"[1 2]", "byte 3: expected ',' or ']' but found '2'"},
        {"[1", "byte 2: expected ',' or ']' but found the end of the text"},
        {"[] []", "byte 3: expected the end of the text but found '['"},
        {"nul", "byte 3: expected \"null\""},
        {"True", "byte 0: expected a value but found 'T'"},
        {"NaN", "byte 0: expected a value but found 'N'"},
        {"{a:1}", "byte 1: expected a member's name but found 'a'"},
        {"{\"a\" 1}", "byte 5: expected ':' but found '1'"},
        {"{\"a\":1,}", "byte 7: expected a member's name but found '}'"},
        {"{\"a\":1,\"b\":2,\"\\u0061\":3}", "byte 13: the name \"a\" appears twice"},
        {"[1]/**/", "byte 3: expected the end"},
        {"'a'", "byte 0: expected a value but found '''"},
        {"01", "byte 1: expected the end of the text but found '1'"},
        {"+1", "byte 0: expected a value but found '+'"},
        {".5", "byte 0: expected a value but found '.'"},
        {"1.", "byte 2: expected a digit"},
        {"-", "byte 1: expected a digit"},
        {"1e", "byte 2: expected a digit"},
        {"1e+", "byte 3: expected a digit"},
        {"0x10", "byte 1: expected the end"},
        {"[1e999]", "byte 1: a number beyond the range"},
        {"-0.01e400", "byte 0: a number beyond the range"},
        {"9e9223372036854775807", "byte 0: a number beyond the range"},
        {"\"a", "byte 2: expected a string's closing '\"'"},
        {"\"a\nb\"", "byte 2: a control character"},
        {std::string("\"a\0\"", 4), "byte 2: a control character"},
        {"\"\\x\"", "byte 2: expected one of"},
        {"\"\\u12g4\"", "byte 5: expected four hexadecimal digits but found 'g'"},
        {"\"a\\ud800\"", "byte 2: an unpaired surrogate"},
        {"\"\\ude00\"", "byte 1: an unpaired surrogate"},
        {"\"\\ud800\\u0041\"", "byte 1: an unpaired surrogate"},
        {"\"\\ud800\\n\"", "byte 1: an unpaired surrogate"},
        {"\"a\xFF\"", "byte 2: invalid UTF-8; found the byte 0xff"},
        {"\"\xC0\x80\"", "byte 1: invalid UTF-8"},
        {"\"\xE0\x9F\xBF\"", "byte 1: invalid UTF-8"},
        {"\"\xED\xA0\x80\"", "byte 1: invalid UTF-8"},
        {"\"\xF4\x90\x80\x80\"", "byte 1: invalid UTF-8"},
        {"\"\xE2\x82\"", "byte 1: invalid UTF-8"},
        {"\"\xE2\x82", "byte 1: invalid UTF-8"},
        {"\"\x80\"", "byte 1: invalid UTF-8"},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(failure(text).substr(0, std::string(expected).size()), expected) << text;
}

TEST(JsonText, LimitsHoldExactly)
{
    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    EXPECT_EQ(failure(nested(64)), "accepted");
    EXPECT_EQ(failure(nested(65)), "byte 64: nested deeper than 64");
    EXPECT_EQ(failure(std::string(1'000'000, '[')), "byte 64: nested deeper than 64");

    Limits limits;
    limits.bytes = 4;
    limits.members = 3;
    limits.nameBytes = 2;
    limits.numberBytes = 3;
    EXPECT_EQ(failure("[1 ]", limits), "accepted");
    EXPECT_EQ(failure("[1  ]", limits), "byte 4: the text is longer than 4 bytes");
    limits.bytes = 100;
    EXPECT_EQ(failure("[1,2]", limits), "accepted");
    EXPECT_EQ(failure("[1,2,3]", limits), "byte 5: more than 3 values");
    EXPECT_EQ(failure(R"({"ab":1})", limits), "accepted");
    EXPECT_EQ(failure(R"({"abc":1})", limits), "byte 1: a name of more than 2 bytes");
    EXPECT_EQ(failure("123", limits), "accepted");
    EXPECT_EQ(failure("1234", limits), "byte 0: a number of more than 3 bytes");
}

TEST(JsonText, OrderOfMembersIsKeptAsFarAsPromised)
{
    const auto object = [](std::size_t members) {
        std::string text = "{";
        for (std::size_t i = members; i > 0; --i)
            text += "\"k" + std::to_string(100'000 + i) + "\":" + std::to_string(i) + (i > 1 ? "," : "}");
        return text;
    };
    EXPECT_EQ(rewritten(object(kMaxOrderedMembers)), object(kMaxOrderedMembers));
    EXPECT_EQ(rewritten(object(kMaxOrderedMembers + 1)).substr(0, 14), R"({"k100001":1,")");
}

TEST(JsonText, CostGrowsWithTheTextOnly)
{
    // Each took minutes with a reader that keeps the order of large objects or copies while it nests.
    std::string members = "{";
    for (int i = 0; i < 300'000; ++i)
        members += "\"" + std::to_string(i) + "\":0,";
    members.back() = '}';
    const std::string text = "[\"" + std::string(10'000'000, 'x') + "\\n\xC3\xA9\"]";

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(parse(members).extract<Object::Ptr>()->size(), 300'000u);
    EXPECT_EQ(rewritten(text), text);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(JsonText, WhatHasNoJsonFormIsNotWritten)
{
    Var deep = 1;
    for (std::size_t i = 0; i <= kMaxWriteDepth; ++i) {
        Array::Ptr outer = new Array;
        outer->add(deep);
        deep = outer;
    }
    for (const auto& value : {Var(std::nan("")), Var(std::numeric_limits<double>::infinity()),
                              Var(-std::numeric_limits<float>::infinity()), Var(std::vector<int>{1}), deep})
        EXPECT_THROW(write(value), JsonError);

    Array::Ptr kinds = new Array;
    kinds->add(std::int8_t{-1});
    kinds->add(std::uint16_t{65'535});
    kinds->add(0.5f);
    kinds->add(std::string("\xFF a"));
    kinds->add(Array());
    EXPECT_EQ(write(kinds), "[-1,65535,0.5,\"\xEF\xBF\xBD a\",[]]");
}

TEST(JsonFields, ErrorsSayWhereAndWhat)
{
    const auto object = *parse(R"({"s":"x","i":5,"d":5.5,"whole":7.0,"b":true,"n":null,"a":["p",1],"o":{},
                                   "big":9223372036854775808,"huge":1e19})")
                             .extract<Object::Ptr>();
    const auto error = [](auto read) -> std::string {
        try {
            read();
        } catch (const JsonError& failed) {
            return failed.what();
        }
        return "accepted";
    };
    EXPECT_EQ(requireInteger(object, "whole"), 7);
    EXPECT_EQ(requireDouble(object, "i"), 5.0);
    EXPECT_EQ(optionalString(object, "n", "fallback"), "fallback");
    EXPECT_EQ(optionalInteger(object, "missing", 3), 3);
    EXPECT_EQ(optionalBool(object, "b", false), true);
    EXPECT_TRUE(requireValue(object, "n").isEmpty());
    EXPECT_TRUE(optionalObject(object, "missing").isNull());

    EXPECT_EQ(error([&] { requireString(object, "i"); }), "i: expected a string but found the integer 5");
    EXPECT_EQ(error([&] { requireString(object, "x"); }), "x: expected a string but found null or nothing");
    EXPECT_EQ(error([&] { requireInteger(object, "d"); }), "d: expected an integer but found the number 5.5");
    EXPECT_EQ(error([&] { requireInteger(object, "b"); }), "b: expected an integer but found a truth value");
    EXPECT_EQ(error([&] { requireInteger(object, "i", 0, 4); }),
              "i: expected an integer from 0 to 4 but found the integer 5");
    EXPECT_NE(error([&] { requireInteger(object, "big"); }), "accepted");
    EXPECT_NE(error([&] { requireInteger(object, "huge"); }), "accepted");
    EXPECT_EQ(error([&] { optionalBool(object, "i", false); }), "i: expected true or false but found the integer 5");
    EXPECT_EQ(error([&] { requireDouble(object, "b"); }), "b: expected a number but found a truth value");
    EXPECT_EQ(error([&] { requireArray(object, "o"); }), "o: expected an array but found an object");
    EXPECT_EQ(error([&] { requireStrings(object, "a"); }), "a[1]: expected a string but found the integer 1");
    EXPECT_EQ(error([&] { within(std::string("messages"), [&] { within(2, [&] { requireString(object, "i"); }); }); }),
              "messages[2].i: expected a string but found the integer 5");
}

} // namespace
