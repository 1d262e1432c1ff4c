#pragma once

#include <cstdint>
#include <optional>

#include <sys/types.h>

#include "platform/Export.h"

namespace fl::process {

/// When a process started, in clock ticks since the machine did; empty when there is no such process (proc(5),
/// /proc/PID/stat). A number that is used again comes with another start. Any thread.
VENDRA_PLATFORM_API std::optional<std::uint64_t> startTicks(pid_t pid);

/// The same moment in seconds since the epoch. Any thread.
VENDRA_PLATFORM_API std::int64_t startSeconds(std::uint64_t ticks);

} // namespace fl::process
