#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

/// Reads parts of a JSON text where they stand, for clients that must cost little. The texts come from servers that
/// write valid JSON; of anything else the views are empty or wrong, never outside of the text. Views live as long as
/// the text does.
namespace json_view {

/// The raw value of an object's member; empty when there is none.
std::string_view member(std::string_view object, std::string_view name);

/// The raw value at the end of a way through objects.
std::string_view member(std::string_view object, std::initializer_list<std::string_view> way);

/// The raw elements of an array.
std::vector<std::string_view> elements(std::string_view array);

/// What is between the quotes of a raw text, escapes as they are; empty for other values.
std::string_view inside(std::string_view raw);

/// How often an escaped line feed stands in a raw text.
std::size_t countLines(std::string_view raw);

/// A JSON text, with its quotes, of any UTF-8.
std::string quoted(std::string_view text);

} // namespace json_view
