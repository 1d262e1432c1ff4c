#pragma once

#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::common {

enum class LogLevel
{
    off,
    error,
    warning,
    info,
    debug,
    trace
};

/// Where the connector writes its log (not the module's own life-cycle lines): "stderr" (also for an empty text),
/// "stdout", "none", or "file:PATH" (appended to; rotated at 10 MB, five kept). Throws std::invalid_argument or
/// std::system_error that names the text. Any thread.
CONNECTOR_API void setLogDestination(const std::string& destination);

/// Which sources are logged from which level on: a comma-separated list of "SOURCE=LEVEL" with a source's dotted name,
/// covering what is below it, or "*"; "LEVEL" alone is short for "*=LEVEL". Later parts win over earlier ones, longer
/// sources over shorter. LEVEL: off, error, warning, info, debug, trace. Sources that no part covers, and an empty
/// text, have the default, "warning". Throws std::invalid_argument that names the part it does not understand; nothing
/// changes then. Any thread.
CONNECTOR_API void setLogSpecification(const std::string& specification);

/// One cheap test before a text is built.
CONNECTOR_API bool isLogged(std::string_view source, LogLevel level) noexcept;

/// One line "<ISO time in UTC> <LEVEL> <source>: <text>", when the source is logged at that level. Control characters
/// and backslashes are escaped, invalid UTF-8 becomes U+FFFD, and what is beyond 64 KiB is left out. A line that cannot
/// be written is dropped; standard error says so once. Any thread.
CONNECTOR_API void log(std::string_view source, LogLevel level, std::string_view text);

} // namespace connector::common
