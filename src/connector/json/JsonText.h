#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
    /// Half of a surrogate pair is taken, for what is passed on as it is written; where a string is made of it, it
    /// becomes U+FFFD. Others refuse it: it is no text.
    bool loneSurrogates = false;
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

/// Throws as `parse` does, and makes nothing.
CONNECTOR_API void check(std::string_view text, const Limits& limits = {});

/// A value that was checked and left as its text, with the members of an object one by one: for what is mostly passed
/// on. Views what it was read from.
class CONNECTOR_API RawValue
{
public:
    /// Why a value is not taken.
    struct Fault
    {
        std::string member; ///< of the object, the first that is wrong; "" when it is none of them
        std::string what;   ///< as JsonError tells it, without the place
    };
    struct Member
    {
        std::string name;
        std::string_view text;
    };

    explicit RawValue(std::string_view text, std::vector<Member> members = {},
                      std::shared_ptr<const Fault> fault = nullptr)
        : text_(text), members_(std::move(members)), fault_(std::move(fault))
    {}

    std::string_view text() const noexcept { return text_; }
    bool isObject() const noexcept { return text_.starts_with('{'); }
    /// A member's text; "" without one, and when it is not well-formed.
    std::string_view member(std::string_view name) const noexcept;
    /// Null for a value that is well-formed and within the limits.
    const Fault* fault() const noexcept { return fault_.get(); }

private:
    std::string_view text_;
    std::vector<Member> members_;
    std::shared_ptr<const Fault> fault_;
};

/// The elements of an array, or an object alone; another value is refused. What is wrong within one of them, or beyond
/// the limits, which hold for each by itself, is its own fault and does not stop the others, as long as it can be told
/// where it ends.
CONNECTOR_API std::vector<RawValue> parseRaw(std::string_view text, const Limits& limits = {});

/// The string that is written like that; nullopt when it is another value. `text` is that of a RawValue or its member.
CONNECTOR_API std::optional<std::string> rawString(std::string_view text);

/// Compact text of a value made of the types that `parse` makes (or any integer type, float, objects and arrays by
/// value). A double always carries a fraction or an exponent ("5.0"), in the shortest form that reads back the same, so
/// that it stays a double. Throws JsonError for NaN and infinities, for types without a JSON form and beyond
/// kMaxWriteDepth. Invalid UTF-8 in strings becomes U+FFFD.
CONNECTOR_API std::string write(const Poco::Dynamic::Var& value);

/// Appends what `write` makes of a string.
CONNECTOR_API void appendString(std::string& json, std::string_view text);

} // namespace connector::json
