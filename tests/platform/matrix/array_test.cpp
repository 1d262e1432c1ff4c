#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>

#include "platform/matrix/Array.h"

namespace matrix {
namespace {

constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();

ArrayPtr cellOf(ArrayPtr element)
{
    std::vector<ArrayPtr> elements;
    elements.push_back(std::move(element));
    return createCellRow(std::move(elements));
}

ArrayPtr structOf(std::vector<std::string> names, double value)
{
    std::vector<std::pair<std::string, ArrayPtr>> fields;
    for (auto& name : names)
        fields.emplace_back(std::move(name), createScalar(value));
    return createStruct(std::move(fields));
}

template <class Error>
std::string failureOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Error& error) {
        return error.what();
    }
    return "";
}

TEST(Array, KeepsTwoDimensionsAndDropsTrailingOnes)
{
    const struct
    {
        Dimensions given;
        Dimensions kept;
        bool row;
    } cases[] = {
        {{}, {1, 1}, true},           {{1}, {1, 1}, true},           {{3}, {3, 1}, false},
        {{1, 4, 1, 1}, {1, 4}, true}, {{0, 0}, {0, 0}, true},        {{1, 0}, {1, 0}, true},
        {{0, 1}, {0, 1}, false},      {{2, 1, 3}, {2, 1, 3}, false}, {{1, 2, 0, 1}, {1, 2, 0}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.given));
        const ArrayPtr array = create(c.given, std::vector<float>(countElements(c.given)));
        EXPECT_EQ(array->dimensions(), c.kept);
        EXPECT_EQ(array->is_row(), c.row);
        EXPECT_EQ(array->get_number_of_elements(), countElements(c.given));
        EXPECT_EQ(array->is_empty(), countElements(c.given) == 0);
    }
}

TEST(Array, RefusesSizesThatOverflow)
{
    EXPECT_EQ(countElements({kMost, 1}), kMost);
    EXPECT_EQ(countElements({kMost, kMost, 0}), 0u);
    for (const Dimensions& sizes :
         {Dimensions{kMost, 2}, Dimensions{std::size_t{1} << 32, std::size_t{1} << 32}, Dimensions{3, kMost / 2, 1}}) {
        SCOPED_TRACE(testing::PrintToString(sizes));
        EXPECT_NE(failureOf<std::length_error>([&] { countElements(sizes); }).find(std::to_string(sizes[1])),
                  std::string::npos);
        EXPECT_THROW(create(sizes, std::vector<double>(1)), std::length_error);
    }
    EXPECT_EQ(detail::create_cell(kMost, 2), nullptr);
    EXPECT_EQ(detail::create_cell(kMost / 2, 1), nullptr);
}

TEST(Array, RefusesDataThatDoesNotMatchTheSizes)
{
    const auto values = [](std::size_t count) { return std::vector<ArrayPtr>(count); };
    EXPECT_EQ(failureOf<std::invalid_argument>([] {
                  create({2, 3}, std::vector<std::int16_t>(5));
              }),
              "A 2-by-3 int16 array cannot hold 5 elements.");
    EXPECT_THROW(create({0, 1}, values(1)), std::invalid_argument);
    EXPECT_THROW(create({}, std::vector<Logical>()), std::invalid_argument);

    const struct
    {
        Dimensions sizes;
        std::vector<std::string> fields;
        std::size_t values;
        bool accepted;
    } structs[] = {
        {{1, 2}, {"a", "b"}, 4, true}, {{1, 2}, {"a", "b"}, 3, false}, {{1, 2}, {"a", "b"}, 5, false},
        {{1, 2}, {}, 0, true},         {{1, 2}, {}, 2, false},         {{0, 0}, {"a"}, 0, true},
        {{0, 0}, {"a"}, 1, false},     {{1, 1}, {"a", "a"}, 2, false}, {{kMost / 2 + 1, 1}, {"a", "b"}, 0, false},
    };
    for (const auto& c : structs) {
        SCOPED_TRACE(testing::PrintToString(c.sizes) + testing::PrintToString(c.fields) + std::to_string(c.values));
        const auto make = [&] { return create(c.sizes, StructData{c.fields, values(c.values)}); };
        if (c.accepted)
            EXPECT_EQ(make()->structure()->values.size(), c.values);
        else
            EXPECT_THROW(make(), std::invalid_argument);
    }
    EXPECT_NE(failureOf<std::invalid_argument>([] {
                  structOf({"x", "twice", "twice"}, 1);
              }).find("\"twice\""),
              std::string::npos);
}

TEST(Array, ElementTypesHaveTheirClasses)
{
    const std::pair<ArrayPtr, const char*> cases[] = {
        {createCellRow({}), "cell"},
        {createStruct({}), "struct"},
        {createScalar(true), "logical"},
        {createScalar(Logical{1}), "logical"},
        {create("x"), "char"},
        {createEmpty(), "double"},
        {createScalar(1.0f), "single"},
        {createScalar(std::int8_t{1}), "int8"},
        {createScalar(std::uint8_t{1}), "uint8"},
        {createScalar(std::int16_t{1}), "int16"},
        {createScalar(std::uint16_t{1}), "uint16"},
        {createScalar(std::int32_t{1}), "int32"},
        {createScalar(std::uint32_t{1}), "uint32"},
        {createScalar(std::int64_t{1}), "int64"},
        {createScalar(std::uint64_t{1}), "uint64"},
    };
    for (const auto& [array, name] : cases)
        EXPECT_STREQ(className(array->class_id()), name);
}

TEST(Array, IdenticalComparesClassSizesAndElements)
{
    const double nan = std::nan("");
    const auto row = [](std::vector<double> values) {
        const std::size_t count = values.size();
        return create({1, count}, std::move(values));
    };
    struct Case
    {
        const char* name;
        ArrayPtr left, right;
        bool identical;
    };
    const Case cases[] = {
        {"NaN with another sign", row({1, nan}), row({1, -nan}), true},
        {"NaN and a number", row({nan}), row({0}), false},
        {"negative zero", row({0.0}), row({-0.0}), false},
        {"class", createScalar(std::int32_t{1}), createScalar(std::uint32_t{1}), false},
        {"sizes of empties", create({0, 1}, std::vector<double>()), createEmpty(), false},
        {"shape", create({2, 1}, std::vector<double>{1, 2}), row({1, 2}), false},
        {"empty cell element", cellOf(nullptr), cellOf(createEmpty()), true},
        {"empty cell element and 0-by-1", cellOf(nullptr), cellOf(create({0, 1}, std::vector<double>())), false},
        {"empty cell element and empty text", cellOf(create("")), cellOf(nullptr), false},
        {"nested", cellOf(cellOf(row({1}))), cellOf(cellOf(row({1}))), true},
        {"nested difference", cellOf(cellOf(row({1}))), cellOf(cellOf(row({2}))), false},
        {"struct", structOf({"a", "b"}, 1), structOf({"a", "b"}, 1), true},
        {"struct value", structOf({"a", "b"}, 1), structOf({"a", "b"}, 2), false},
        {"struct field name", structOf({"a", "b"}, 1), structOf({"a", "c"}, 1), false},
        {"typed", createTyped("date", create("2024")), createTyped("date", create("2024")), true},
        {"typed value", createTyped("date", create("2024")), createTyped("date", create("2025")), false},
        {"kind of a typed value", createTyped("date", create("2024")), createTyped("time", create("2024")), false},
        {"typed nothing", createTyped("date", nullptr), createTyped("date", createEmpty()), true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(identical(*c.left, *c.right), c.identical);
        EXPECT_EQ(identical(*c.right, *c.left), c.identical);
        EXPECT_TRUE(identical(*c.left, *clone(*c.left)));
    }
}

TEST(Array, CloneSharesNothing)
{
    const ArrayPtr original = cellOf(structOf({"a"}, 1));
    const ArrayPtr copy = clone(*original);
    copy->elements<ArrayPtr>()->front()->structure()->values.front()->elements<double>()->front() = 7;
    EXPECT_TRUE(identical(*original, *cellOf(structOf({"a"}, 1))));
    EXPECT_TRUE(identical(*copy, *cellOf(structOf({"a"}, 7))));
}

} // namespace
} // namespace matrix
