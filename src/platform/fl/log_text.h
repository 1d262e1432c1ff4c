#pragma once

#include <string>
#include <string_view>

#include "platform/Export.h"

namespace fl::log_text {

/// Appends `text`, well-formed UTF-8, so that it stays on its line: no control character reaches a terminal, no line is
/// forged. Line feed, carriage return, tab and backslash as in C; any other control up to U+009F as "\x" and two
/// hexadecimal digits. Any thread.
VENDRA_PLATFORM_API void appendEscaped(std::string& line, std::string_view text);

} // namespace fl::log_text
