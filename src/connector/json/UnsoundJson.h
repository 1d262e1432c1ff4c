#pragma once

#include <string_view>
#include <utility>
#include <vector>

/// Where the parts of a text seem to be that is meant as JSON and is not, or not taken: told by quotes and brackets
/// alone.
namespace connector::json {

/// The end of the value that begins at `begin`: a comma or closing bracket of what it stands in, else `end`. Null when
/// the text ends within the value.
const char* endOfUnsound(const char* begin, const char* end) noexcept;

/// The names, in quotes as they are written, and values of an object, as far as there are some; empty for another
/// value. Views the text.
std::vector<std::pair<std::string_view, std::string_view>> membersOfUnsound(std::string_view object);

} // namespace connector::json
