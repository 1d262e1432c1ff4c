#pragma once

#include <string>
#include <string_view>

namespace connector::common {

/// Appends `text`, well-formed UTF-8, so that it stays on its line: no control character reaches a terminal, no line is
/// forged. A backslash becomes two, a control character of `lettered` (some of "\n\r\t") a backslash and its letter,
/// any other up to U+009F "\x" and two hexadecimal digits. Any thread.
void appendEscaped(std::string& line, std::string_view text, std::string_view lettered);

} // namespace connector::common
