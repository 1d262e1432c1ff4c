#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/Export.h"
#include "connector/json/JsonSerializer.h"

/// Reading and writing the members of JSON objects. The readers throw JsonError with the member's name, what was
/// expected and what was found; a member that is null counts as missing. Strings are UTF-8.
namespace connector::json {

using Poco::Dynamic::Var;
using Object = Poco::JSON::Object;
using Array = Poco::JSON::Array;

inline constexpr std::int64_t kMinInteger = std::numeric_limits<std::int64_t>::min();
inline constexpr std::int64_t kMaxInteger = std::numeric_limits<std::int64_t>::max();

CONNECTOR_API std::string requireString(const Object& object, const std::string& name);
/// A whole number within the bounds; 5.0 is one too.
CONNECTOR_API std::int64_t requireInteger(const Object& object, const std::string& name,
                                          std::int64_t minimum = kMinInteger, std::int64_t maximum = kMaxInteger);
CONNECTOR_API double requireDouble(const Object& object, const std::string& name);
CONNECTOR_API bool requireBool(const Object& object, const std::string& name);
CONNECTOR_API Object::Ptr requireObject(const Object& object, const std::string& name);
CONNECTOR_API Array::Ptr requireArray(const Object& object, const std::string& name);
CONNECTOR_API std::vector<std::string> requireStrings(const Object& object, const std::string& name);
/// Any value, but there; null is allowed.
CONNECTOR_API Var requireValue(const Object& object, const std::string& name);

CONNECTOR_API std::string optionalString(const Object& object, const std::string& name, std::string fallback = {});
CONNECTOR_API std::int64_t optionalInteger(const Object& object, const std::string& name, std::int64_t fallback,
                                           std::int64_t minimum = kMinInteger, std::int64_t maximum = kMaxInteger);
CONNECTOR_API double optionalDouble(const Object& object, const std::string& name, double fallback);
CONNECTOR_API bool optionalBool(const Object& object, const std::string& name, bool fallback);
/// Null when the member is missing.
CONNECTOR_API Object::Ptr optionalObject(const Object& object, const std::string& name);
CONNECTOR_API Array::Ptr optionalArray(const Object& object, const std::string& name);
CONNECTOR_API std::vector<std::string> optionalStrings(const Object& object, const std::string& name);

/// The same of a value that is no member; without a place in the error's text.
CONNECTOR_API const std::string& asString(const Var& value);
CONNECTOR_API std::int64_t asInteger(const Var& value, std::int64_t minimum = kMinInteger,
                                     std::int64_t maximum = kMaxInteger);
CONNECTOR_API double asDouble(const Var& value);
CONNECTOR_API bool asBool(const Var& value);
CONNECTOR_API Object::Ptr asObject(const Var& value);
CONNECTOR_API Array::Ptr asArray(const Var& value);

/// "a string", "an integer" … "null"; other types by their own name.
CONNECTOR_API std::string describe(const Var& value);

/// The members of an object in its own order. Valid while the object is not changed.
CONNECTOR_API std::vector<const Object::ValueType*> membersInOrder(const Object& object);

/// A new object that keeps the order in which its members are set.
CONNECTOR_API Object::Ptr makeObject();
CONNECTOR_API Array::Ptr makeArray(const std::vector<std::string>& texts);

/// "name" and "[2]" in front of an error's place.
[[noreturn]] CONNECTOR_API void rethrowWithin(const std::string& name, const JsonError& error);
[[noreturn]] CONNECTOR_API void rethrowWithin(std::size_t index, const JsonError& error);

/// What `read` answers; its JsonErrors say that they come from the member or element `place`.
template <class Place, class Read>
decltype(auto) within(const Place& place, Read read)
{
    try {
        return read();
    } catch (const JsonError& error) {
        rethrowWithin(place, error);
    }
}

} // namespace connector::json
