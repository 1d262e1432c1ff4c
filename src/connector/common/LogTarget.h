#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace connector::common {

/// Where log lines end. Used by one thread at a time.
class LogTarget
{
public:
    virtual ~LogTarget() = default;
    /// `line` ends with a newline.
    virtual void write(std::string_view line) noexcept = 0;
};

/// See setLogDestination; null for "none".
std::unique_ptr<LogTarget> makeLogTarget(const std::string& destination);

} // namespace connector::common
