#include "connector/json/JsonNumber.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace connector::json {

namespace {

/// Whether a number outside the range of doubles is too large, not too small: whether it is 1 or more.
bool isLarge(std::string_view number) noexcept
{
    if (number.front() == '-')
        number.remove_prefix(1);
    const auto mark = std::min(number.find_first_of("eE"), number.size());
    long exponent = 0;
    if (mark != number.size()) {
        auto digits = number.substr(mark + 1);
        const bool negative = digits.front() == '-';
        if (negative || digits.front() == '+')
            digits.remove_prefix(1);
        if (std::from_chars(digits.data(), digits.data() + digits.size(), exponent).ec != std::errc())
            return !negative;
        exponent = negative ? -exponent : exponent;
    }
    // The exponent of the first digit that is not zero.
    const auto mantissa = number.substr(0, mark);
    const auto point = std::min(mantissa.find('.'), mantissa.size());
    const auto first = mantissa.find_first_of("123456789");
    const auto position = static_cast<long>(first) - static_cast<long>(point);
    return exponent > position; // their difference may be beyond the type
}

} // namespace

std::optional<double> doubleOf(std::string_view number) noexcept
{
    double value = 0;
    if (std::from_chars(number.data(), number.data() + number.size(), value).ec == std::errc::result_out_of_range) {
        if (isLarge(number))
            return std::nullopt;
        value = number.front() == '-' ? -0.0 : 0.0;
    }
    return value;
}

} // namespace connector::json
