#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <Poco/Dynamic/Var.h>

#include "connector/Export.h"

namespace connector::json {

/// Limits on a text that is read. JSON beyond them is refused with JsonError.
struct Limits
{
    std::size_t bytes = 64u << 20;     ///< length of the text
    std::size_t depth = 64;            ///< nesting of arrays and objects
    std::size_t members = 1'000'000;   ///< values in all
    std::size_t nameBytes = 64u << 10; ///< length of a member's name
    std::size_t numberBytes = 1'024;   ///< length of a number
};

/// Objects keep the order of their members up to this many; members of larger ones are in the order of their names (the
/// object type takes quadratic time to keep an order).
inline constexpr std::size_t kMaxOrderedMembers = 512;

/// How deep a value may be nested to be written.
inline constexpr std::size_t kMaxWriteDepth = 512;

/// RFC 8259 text, UTF-8 without a byte order mark, one value and nothing behind it, no duplicate member names. Integers
/// without fraction or exponent become Int64 (UInt64 when they fit only there, a double beyond), other numbers double;
/// values are Poco::JSON::Object::Ptr, Poco::JSON::Array::Ptr, std::string, bool, empty for null. A number beyond the
/// doubles is refused, one too small for them is zero. Throws JsonError "byte N: …" with the offset, from 0, of what is
/// wrong: the byte that should not be there; a string's, number's or name's first byte when it is wrong as a whole.
CONNECTOR_API Poco::Dynamic::Var parse(std::string_view text, const Limits& limits = {});

/// A value that was read and not made: its text, a part of what was parsed.
struct RawJson
{
    std::string_view text;
};

/// For a message, or an array of messages, with something in it that is mostly passed on: as `parse`, but the members
/// `rawName` of the outer object, or of the objects right in the outer array, are RawJson. They are well-formed and
/// within the limits, and their text lives as long as `text` does.
CONNECTOR_API Poco::Dynamic::Var parseEnvelope(std::string_view text, std::string_view rawName,
                                               const Limits& limits = {});

/// Compact text of a value made of the types that `parse` makes (or any integer type, float, objects and arrays by
/// value). A double always carries a fraction or an exponent ("5.0"), in the shortest form that reads back the same, so
/// that it stays a double. Throws JsonError for NaN and infinities, for types without a JSON form and beyond
/// kMaxWriteDepth. Invalid UTF-8 in strings becomes U+FFFD.
CONNECTOR_API std::string write(const Poco::Dynamic::Var& value);

/// Appends what `write` makes of a string.
CONNECTOR_API void appendString(std::string& json, std::string_view text);

} // namespace connector::json
