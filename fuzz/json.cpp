// Reads arbitrary bytes as JSON and holds the reader to what it promises: what it accepts is written and read back the
// same, as a value and as an array, and it makes no difference whether a value is made or left as it is.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "connector/json/ArrayJson.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializer.h"
#include "connector/json/JsonText.h"
#include "platform/matrix/Array.h"

namespace {

void require(bool holds, const char* what, std::string_view text)
{
    if (holds)
        return;
    std::fprintf(stderr, "%s: %.*s\n", what, static_cast<int>(text.size()), text.data());
    std::abort();
}

void checkArrays(const Poco::Dynamic::Var& value, std::string_view text)
{
    matrix::ArrayPtr array;
    try {
        array = connector::json::fromJson(value);
    } catch (const connector::json::JsonError&) {
        return;
    }
    const auto written = connector::json::write(connector::json::toJson(*array));
    // A described array may be nested deeper than the text it came from.
    connector::json::Limits limits;
    limits.depth = connector::json::kMaxWriteDepth;
    const auto again = connector::json::fromJson(connector::json::parse(written, limits));
    require(matrix::identical(*array, *again), "an array changed on its way", text);
}

/// "" when `read` accepts.
template <class Read>
std::string failureOf(Read read)
{
    try {
        read();
    } catch (const connector::json::JsonError& error) {
        return error.what();
    }
    return "";
}

void checkRaw(std::string_view text)
{
    const std::string message = R"([{"a":1,"data":)" + std::string(text) + R"(,"b":2}])";
    Poco::Dynamic::Var whole;
    std::vector<connector::json::RawValue> raw;
    const auto failure = failureOf([&] { whole = connector::json::parse(message); });
    const bool readable = failureOf([&] { raw = connector::json::parseRaw(message); }).empty();
    for (const auto& value : raw) {
        require((value.fault() == nullptr) == failureOf([&] { connector::json::check(value.text()); }).empty(),
                "a value that is wrong is taken, or one that is not is refused", text);
        for (const char* name : {"a", "b"})
            if (const auto member = value.member(name); !member.empty())
                require(failureOf([&] { connector::json::check(member); }).empty(), "a member is not sound", text);
    }
    const bool sound =
        readable && std::none_of(raw.begin(), raw.end(), [](const auto& value) { return value.fault(); });
    require(sound == failure.empty(), "only one of both is refused", text);
    if (!sound)
        return;
    const auto values = connector::json::asArray(whole);
    require(raw.size() == values->size(), "there is a value more or less", text);
    for (std::size_t i = 0; i < raw.size(); ++i) {
        const auto value = values->get(static_cast<unsigned>(i));
        require(connector::json::write(connector::json::parse(raw[i].text())) == connector::json::write(value),
                "a value that was left alone is another one", text);
        if (!raw[i].isObject())
            continue;
        for (const auto& [name, member] : *connector::json::asObject(value)) {
            const auto found = raw[i].member(name);
            require(!found.empty() &&
                        connector::json::write(connector::json::parse(found)) == connector::json::write(member),
                    "a member that was left alone is another one", text);
            if (const auto string = connector::json::rawString(found))
                require(*string == member.extract<std::string>(), "a string is another one", text);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkRaw(text);
    Poco::Dynamic::Var value;
    try {
        value = connector::json::parse(text);
    } catch (const connector::json::JsonError&) {
        return 0;
    }
    const auto written = connector::json::write(value);
    require(connector::json::write(connector::json::parse(written)) == written, "a value changed on its way", text);
    checkArrays(value, text);
    return 0;
}
