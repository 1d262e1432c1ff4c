#include <map>
#include <memory>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "AnyPluginType.h"
#include "platform/us/Any.h"

namespace us_test {

using us::Any;

struct Opaque
{
    int value = 0;
};

TEST(UsAny, CastsToTheExactTypeOnly)
{
    Any any(5);
    EXPECT_EQ(us::any_cast<int>(any), 5);
    EXPECT_EQ(us::any_cast<long>(&any), nullptr);
    EXPECT_EQ(us::any_cast<unsigned>(&any), nullptr);
    EXPECT_EQ(us::any_cast<int>(static_cast<Any*>(nullptr)), nullptr);
    *us::any_cast<int>(&any) = 6;
    us::ref_any_cast<int>(any) += 1;
    const Any copy = any;
    us::ref_any_cast<int>(any) = 0;
    EXPECT_EQ(us::ref_any_cast<int>(copy), 7);
    EXPECT_EQ(us::any_cast<const int&>(copy), 7);

    const auto text = [](auto&& cast) {
        try {
            cast();
        } catch (const std::bad_cast& error) { // the documented base
            return std::string(error.what());
        }
        return std::string("no exception");
    };
    EXPECT_EQ(text([&] { us::any_cast<long>(any); }),
              "Failed to convert between Any types: it holds int, asked for was long");
    EXPECT_EQ(text([&] { us::ref_any_cast<long>(any); }),
              "RefAnyCast: Failed to convert between Any types: it holds int, asked for was long");
    EXPECT_EQ(text([&] { us::ref_any_cast<bool>(copy); }),
              "RefAnyCast: Failed to convert between const Any types: it holds int, asked for was bool");
    EXPECT_EQ(text([] { us::any_cast<int>(Any()); }),
              "Failed to convert between Any types: it holds nothing, asked for was int");
}

TEST(UsAny, CopiesAreDeepAndMovesEmpty)
{
    const auto shared = std::make_shared<int>(1);
    Any a(shared);
    Any b = a;
    EXPECT_EQ(shared.use_count(), 3);
    Any c = std::move(a);
    EXPECT_TRUE(a.Empty());
    EXPECT_EQ(a.Type(), typeid(void));
    EXPECT_EQ(shared.use_count(), 3);
    a.Swap(c);
    b = b; // NOLINT
    EXPECT_EQ(us::any_cast<std::shared_ptr<int>>(a), shared);
    EXPECT_TRUE(c.Empty());
    a = b = Any();
    EXPECT_EQ(shared.use_count(), 1);
}

TEST(UsAny, ComparesValues)
{
    const std::vector<std::pair<std::pair<Any, Any>, bool>> table{
        {{Any(), Any()}, true},
        {{1, Any()}, false},
        {{1, 1}, true},
        {{1, 1L}, false},
        {{"a", std::string("a")}, true},
        {{0.1, 0.1}, true},
        {{1.0, 1.0 + 1e-15}, false}, // would print alike with few digits
        {{std::vector<Any>{1, "x"}, std::vector<Any>{1, "x"}}, true},
        {{std::vector<Any>{1, "x"}, std::vector<Any>{1, "y"}}, false},
        {{Opaque{1}, Opaque{1}}, false}, // not comparable
        {{std::vector<Opaque>(1), std::vector<Opaque>(1)}, false},
        {{std::map<std::string, Opaque>(), std::map<std::string, Opaque>()}, false}};
    for (const auto& [pair, expected] : table)
        EXPECT_EQ(pair.first == pair.second, expected) << pair.first.ToJSON() << " and " << pair.second.ToJSON();
}

TEST(UsAny, Prints)
{
    struct Row
    {
        Any any;
        std::string text;
        std::string json;
    };
    const std::vector<Row> table{
        {true, "true", "true"},
        {-5, "-5", "-5"},
        {0.1, "0.1", "0.1"},
        {0.5f, "0.5", "0.5"},
        {'c', "c", "\"c\""},
        {"say \"\\\n\x01", "say \"\\\n\x01", "\"say \\\"\\\\\\n\\u0001\""},
        {std::vector<std::string>{"a", "b"}, "[\"a\",\"b\"]", "[\"a\",\"b\"]"},
        {std::map<std::string, Any>{{"k", std::vector<Any>{1, Any()}}}, "{\"k\":[1,null]}", "{\"k\":[1,null]}"},
        {Opaque(), "<us_test::Opaque>", "\"<us_test::Opaque>\""}};
    for (const Row& row : table) {
        EXPECT_EQ(row.any.ToString(), row.text);
        EXPECT_EQ(row.any.ToJSON(), row.json);
    }
    EXPECT_EQ(Any().ToJSON(), "null");
    EXPECT_EQ(Any().ToStringNoExcept(), "");
    EXPECT_THROW(Any().ToString(), std::logic_error);
}

TEST(UsAny, CustomTypesCrossLibrariesLoadedLocally)
{
    const auto close = [](void* library) { dlclose(library); };
    using Library = std::unique_ptr<void, decltype(close)>;
    const Library maker(dlopen(US_TEST_PLUGIN_ONE, RTLD_NOW | RTLD_LOCAL), close);
    const Library reader(dlopen(US_TEST_PLUGIN_TWO, RTLD_NOW | RTLD_LOCAL), close);
    ASSERT_TRUE(maker && reader) << dlerror();
    const auto make = reinterpret_cast<MakeAny>(dlsym(maker.get(), "makeAny"));
    const auto makeOther = reinterpret_cast<MakeAny>(dlsym(reader.get(), "makeAny"));
    const auto read = reinterpret_cast<ReadAny>(dlsym(reader.get(), "readAny"));
    ASSERT_NE(make, makeOther) << "one library twice";
    Any one, two; // gone before the libraries
    make(one, 42);
    makeOther(two, 42);
    EXPECT_EQ(read(one), 42);
    EXPECT_EQ(us::any_cast<Travelling>(one).number, 42);
    EXPECT_EQ(one, two);
    EXPECT_EQ(read(Any(42)), -1);
}

} // namespace us_test
