#pragma once

#include <string_view>

namespace us::detail {

/// To the host's log, as a warning of logger "us": what went wrong in code that the framework called, or in data that
/// it was given, where nobody is there to hear an exception.
void report(std::string_view text);

} // namespace us::detail
