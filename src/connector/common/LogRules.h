#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "connector/common/Log.h"

namespace connector::common {

/// "OFF", "ERROR" …
const char* levelName(LogLevel level) noexcept;

/// Of "off", "error" …; none for another text.
std::optional<LogLevel> levelNamed(std::string_view text) noexcept;

/// A parsed log specification.
class LogRules
{
public:
    /// See setLogSpecification.
    explicit LogRules(std::string_view specification);

    LogLevel levelOf(std::string_view source) const noexcept;
    /// The highest level of any source.
    LogLevel ceiling() const noexcept;

private:
    LogLevel all_ = LogLevel::warning;
    std::map<std::string, LogLevel, std::less<>> levels_; ///< by dotted name
};

} // namespace connector::common
