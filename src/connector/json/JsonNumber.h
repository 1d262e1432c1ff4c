#pragma once

#include <optional>
#include <string_view>

namespace connector::json {

/// The nearest double of a number in JSON's form, which was checked to be one; zero, with its sign, where it is too
/// small for doubles, nullopt where it is too large.
std::optional<double> doubleOf(std::string_view number) noexcept;

} // namespace connector::json
