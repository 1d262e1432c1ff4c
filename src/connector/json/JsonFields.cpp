#include "connector/json/JsonFields.h"

#include <algorithm>
#include <cmath>
#include <typeinfo>
#include <utility>

namespace connector::json {

namespace {

[[noreturn]] void failExpected(const std::string& expected, const std::string& found)
{
    throw JsonError("expected " + expected + " but found " + found);
}

/// The member itself, where an object's own `get` makes a copy; an empty value when it is missing.
const Var& memberOf(const Object& object, std::string_view name)
{
    static const Var none;
    const auto found =
        std::find_if(object.begin(), object.end(), [name](const auto& member) { return member.first == name; });
    return found == object.end() ? none : found->second;
}

/// What `read` makes of the member, which must be there.
template <class Read>
auto require(const Object& object, const std::string& name, Read read) -> std::decay_t<decltype(read(Var()))>
{
    const Var& value = memberOf(object, name);
    return within(name, [&]() -> std::decay_t<decltype(read(value))> { return read(value); });
}

bool isMissing(const Object& object, const std::string& name) { return memberOf(object, name).isEmpty(); }

template <class Pointer, class Item>
Pointer asPointer(const Var& value, const char* expected)
{
    if (value.type() == typeid(Pointer)) {
        if (auto pointer = value.extract<Pointer>())
            return pointer;
    }
    if (value.type() == typeid(Item))
        return new Item(value.extract<Item>());
    failExpected(expected, describe(value));
}

} // namespace

std::string describe(const Var& value)
{
    if (value.isEmpty())
        return "null or nothing";
    if (value.type() == typeid(std::string))
        return "a string";
    if (value.isBoolean())
        return "a truth value";
    if (value.isInteger())
        return "the integer " + value.toString();
    if (value.isNumeric())
        return "the number " + value.toString();
    if (value.type() == typeid(Object::Ptr) || value.type() == typeid(Object))
        return "an object";
    if (value.type() == typeid(Array::Ptr) || value.type() == typeid(Array))
        return "an array";
    return std::string("a ") + value.type().name();
}

const std::string& asString(const Var& value)
{
    if (value.isEmpty() || value.type() != typeid(std::string))
        failExpected("a string", describe(value));
    return value.extract<std::string>();
}

std::int64_t asInteger(const Var& value, std::int64_t minimum, std::int64_t maximum)
{
    constexpr double kTwoTo63 = 9223372036854775808.0;
    const auto fail = [&]() {
        auto expected = std::string("an integer");
        if (minimum != kMinInteger || maximum != kMaxInteger)
            expected += " from " + std::to_string(minimum) + " to " + std::to_string(maximum);
        failExpected(expected, describe(value));
    };
    std::int64_t result = 0;
    if (value.isEmpty() || value.isBoolean() || !value.isNumeric())
        fail();
    if (value.isInteger()) {
        if (!value.isSigned() && value.convert<Poco::UInt64>() > static_cast<std::uint64_t>(kMaxInteger))
            fail();
        result = value.convert<Poco::Int64>();
    } else {
        const auto number = value.convert<double>();
        if (!(number >= -kTwoTo63 && number < kTwoTo63) || number != std::trunc(number))
            fail();
        result = static_cast<std::int64_t>(number);
    }
    if (result < minimum || result > maximum)
        fail();
    return result;
}

double asDouble(const Var& value)
{
    if (value.isEmpty() || value.isBoolean() || !value.isNumeric())
        failExpected("a number", describe(value));
    if (value.isInteger())
        return value.isSigned() ? static_cast<double>(value.convert<Poco::Int64>())
                                : static_cast<double>(value.convert<Poco::UInt64>());
    return value.convert<double>();
}

bool asBool(const Var& value)
{
    if (value.isEmpty() || !value.isBoolean())
        failExpected("true or false", describe(value));
    return value.extract<bool>();
}

Object::Ptr asObject(const Var& value) { return asPointer<Object::Ptr, Object>(value, "an object"); }

Array::Ptr asArray(const Var& value) { return asPointer<Array::Ptr, Array>(value, "an array"); }

std::string requireString(const Object& object, const std::string& name) { return require(object, name, asString); }

std::int64_t requireInteger(const Object& object, const std::string& name, std::int64_t minimum, std::int64_t maximum)
{
    return require(object, name, [=](const Var& value) { return asInteger(value, minimum, maximum); });
}

double requireDouble(const Object& object, const std::string& name) { return require(object, name, asDouble); }

bool requireBool(const Object& object, const std::string& name) { return require(object, name, asBool); }

Object::Ptr requireObject(const Object& object, const std::string& name) { return require(object, name, asObject); }

Array::Ptr requireArray(const Object& object, const std::string& name) { return require(object, name, asArray); }

std::vector<std::string> requireStrings(const Object& object, const std::string& name)
{
    return require(object, name, [](const Var& value) {
        const auto array = asArray(value);
        std::vector<std::string> strings;
        for (std::size_t i = 0; i < array->size(); ++i)
            strings.push_back(within(i, [&] { return asString(*(array->begin() + static_cast<std::ptrdiff_t>(i))); }));
        return strings;
    });
}

Var requireValue(const Object& object, const std::string& name)
{
    if (!object.has(name))
        within(name, [] { failExpected("a value", "nothing"); });
    return object.get(name);
}

std::string optionalString(const Object& object, const std::string& name, std::string fallback)
{
    return isMissing(object, name) ? std::move(fallback) : requireString(object, name);
}

std::int64_t optionalInteger(const Object& object, const std::string& name, std::int64_t fallback, std::int64_t minimum,
                             std::int64_t maximum)
{
    return isMissing(object, name) ? fallback : requireInteger(object, name, minimum, maximum);
}

double optionalDouble(const Object& object, const std::string& name, double fallback)
{
    return isMissing(object, name) ? fallback : requireDouble(object, name);
}

bool optionalBool(const Object& object, const std::string& name, bool fallback)
{
    return isMissing(object, name) ? fallback : requireBool(object, name);
}

Object::Ptr optionalObject(const Object& object, const std::string& name)
{
    return isMissing(object, name) ? Object::Ptr() : requireObject(object, name);
}

Array::Ptr optionalArray(const Object& object, const std::string& name)
{
    return isMissing(object, name) ? Array::Ptr() : requireArray(object, name);
}

std::vector<std::string> optionalStrings(const Object& object, const std::string& name)
{
    return isMissing(object, name) ? std::vector<std::string>() : requireStrings(object, name);
}

std::vector<const Object::ValueType*> membersInOrder(const Object& object)
{
    // The object hands out its order as names and its values only in the order of their names.
    std::vector<const Object::ValueType*> sorted;
    sorted.reserve(object.size());
    for (const auto& member : object)
        sorted.push_back(&member);
    std::vector<const Object::ValueType*> members;
    members.reserve(sorted.size());
    for (const auto& name : object.getNames())
        members.push_back(*std::lower_bound(sorted.begin(), sorted.end(), name,
                                            [](const auto* member, const auto& key) { return member->first < key; }));
    return members;
}

Object::Ptr makeObject() { return new Object(Poco::JSON_PRESERVE_KEY_ORDER); }

Array::Ptr makeArray(const std::vector<std::string>& texts)
{
    Array::Ptr array = new Array;
    for (const auto& text : texts)
        array->add(text);
    return array;
}

void rethrowWithin(const std::string& name, const JsonError& error)
{
    const std::string inner = error.what();
    // "a: expected …", "a.b: expected …", "a[2]: expected …"
    const bool hasPlace = inner.starts_with('[') || inner.find(": ") < inner.find(' ');
    throw JsonError(name + (inner.starts_with('[') ? "" : hasPlace ? "." : ": ") + inner);
}

void rethrowWithin(std::size_t index, const JsonError& error)
{
    rethrowWithin("[" + std::to_string(index) + "]", error);
}

} // namespace connector::json
