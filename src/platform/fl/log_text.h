#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace fl::log_text {

/// Appends `text`, well-formed UTF-8, so that it stays on its line: no control character reaches a terminal, no line is
/// forged. Line feed, carriage return, tab and backslash as in C; any other control up to U+009F as "\x" and two
/// hexadecimal digits. Any thread.
VENDRA_PLATFORM_API void appendEscaped(std::string& line, std::string_view text);

/// The same for any bytes, what is no UTF-8 as U+FFFD; of more than `maxBytes` the beginning, in whole characters, and
/// how many bytes there are more.
VENDRA_PLATFORM_API void appendShortened(std::string& line, std::string_view text, std::size_t maxBytes);

/// UTC to the millisecond, as ISO 8601: "2026-01-31T23:59:59.999Z". Any thread.
VENDRA_PLATFORM_API std::string timeText(std::chrono::system_clock::time_point time);

} // namespace fl::log_text
