#include "connector/configuration/ValueText.h"

#include <charconv>
#include <cmath>
#include <sstream>
#include <system_error>
#include <type_traits>

namespace connector::configuration {

namespace {

/// Whole numbers without the ".0" of a double, and digit by digit, as they stand in the documentation.
std::string numberText(double number)
{
    constexpr double kExact = 1e15;
    if (number == std::floor(number) && std::abs(number) < kExact)
        return std::to_string(static_cast<std::int64_t>(number));
    char digits[32];
    return {digits, std::to_chars(digits, digits + sizeof digits, number).ptr};
}

template <class Number>
bool readNumber(const std::string& text, Number& number)
{
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

std::vector<std::string> readList(const std::string& text)
{
    std::vector<std::string> list;
    std::istringstream parts(text);
    for (std::string part; std::getline(parts, part, ',');) {
        if (auto element = trimmed(part); !element.empty())
            list.push_back(std::move(element));
    }
    return list;
}

[[noreturn]] void failType(const Key& key, const std::string& found)
{
    throw ConfigurationError("The key " + key.name + " takes " + typeName(key.defaultValue) + ", not " + found + ".");
}

void checkBounds(const Key& key, double number)
{
    if (std::isnan(number) || (key.minimum && number < *key.minimum) || (key.maximum && number > *key.maximum))
        throw ConfigurationError("The key " + key.name + " takes " + typeName(key.defaultValue) +
                                 (key.minimum ? " from " + numberText(*key.minimum) : std::string()) +
                                 (key.maximum ? " to " + numberText(*key.maximum) : std::string()) + ", not " +
                                 numberText(number) + ".");
}

} // namespace

std::string trimmed(const std::string& text)
{
    constexpr const char* kBlank = " \t\r";
    const auto first = text.find_first_not_of(kBlank);
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

const char* typeName(const Value& value) noexcept
{
    constexpr const char* kNames[] = {"text", "an integer", "a number", "true or false", "a list of texts"};
    return kNames[value.index()];
}

Value checkedValue(const Key& key, Value value)
{
    if (std::holds_alternative<double>(key.defaultValue)) {
        if (const auto* integer = std::get_if<std::int64_t>(&value))
            value = static_cast<double>(*integer);
    }
    if (value.index() != key.defaultValue.index())
        failType(key, typeName(value));
    if (const auto* integer = std::get_if<std::int64_t>(&value))
        checkBounds(key, static_cast<double>(*integer));
    else if (const auto* number = std::get_if<double>(&value))
        checkBounds(key, *number);
    return value;
}

Value valueFromText(const Key& key, const std::string& text)
{
    Value value = key.defaultValue;
    const bool understood = std::visit(
        [&](auto& held) {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string>)
                held = text;
            else if constexpr (std::is_same_v<Held, bool>)
                return (held = text == "true") || text == "false";
            else if constexpr (std::is_arithmetic_v<Held>)
                return readNumber(text, held);
            else
                held = readList(text);
            return true;
        },
        value);
    if (!understood)
        failType(key, "\"" + text + "\"");
    return checkedValue(key, std::move(value));
}

std::string toText(const Value& value)
{
    return std::visit(
        [](const auto& held) -> std::string {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string>) {
                return held;
            } else if constexpr (std::is_same_v<Held, bool>) {
                return held ? "true" : "false";
            } else if constexpr (std::is_same_v<Held, double>) {
                return numberText(held);
            } else if constexpr (std::is_same_v<Held, std::int64_t>) {
                return std::to_string(held);
            } else {
                std::string text;
                for (const auto& element : held)
                    text += (text.empty() ? "" : ", ") + element;
                return text;
            }
        },
        value);
}

} // namespace connector::configuration
