#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace fl::log {

/// Levels are single bits of a logger's mask. A mask is their sum.
namespace level {
inline constexpr unsigned kFatal = 1;
inline constexpr unsigned kError = 2;
inline constexpr unsigned kWarning = 4;
inline constexpr unsigned kInfo = 8; ///< life-cycle messages
inline constexpr unsigned kDebug = 16;
inline constexpr unsigned kTrace = 32;
inline constexpr unsigned kDefaultMask = kFatal | kError | kWarning;
} // namespace level

/// Sets the mask of all loggers of that name, existing and future; "*" sets the mask of those without one of their own.
/// Any thread.
VENDRA_PLATFORM_API void setMask(std::string_view loggerName, unsigned mask);

/// Applies "name=mask,name=mask" (decimal masks, no blanks), the syntax of the environment variable VENDRA_LOG, which
/// is applied once before the first logger is made. Throws std::invalid_argument naming the part it does not
/// understand; nothing is applied then. A VENDRA_LOG that is not understood is reported to the log and otherwise
/// ignored.
VENDRA_PLATFORM_API void setMasks(std::string_view specification);

namespace detail {
/// The mask that all loggers of one name share; lives as long as the process.
VENDRA_PLATFORM_API std::shared_ptr<std::atomic<unsigned>> maskFor(std::string_view loggerName);
/// One record to the host's log (Boost.Log): standard error, "<ISO time> <LEVEL> <logger>: <text>", the time in UTC,
/// the level by its most severe bit, control characters and backslashes of names and texts as C escapes. The core of
/// Boost.Log is one per process. Every record of the host carries the attribute "VendraLogger" (std::string, the
/// logger's name), by which the host's sink takes its own records only and sinks of others leave them out; further
/// "VendraLevel" (unsigned), "VendraTime" (std::chrono::system_clock::time_point) and "Message" (std::string).
VENDRA_PLATFORM_API void write(std::string_view loggerName, unsigned level, std::string_view text);
} // namespace detail

/// A named logger of the host. Asking whether a level is admitted costs one relaxed load and a branch.
/// Threads: any.
template <class Char>
class basic_diagnostic_logger;

template <>
class VENDRA_PLATFORM_API basic_diagnostic_logger<char>
{
public:
    explicit basic_diagnostic_logger(std::string name) : name_(std::move(name)), mask_(detail::maskFor(name_)) {}

    const std::string& name() const noexcept { return name_; }
    bool admits(unsigned level) const noexcept { return (mask_->load(std::memory_order_relaxed) & level) != 0; }

    /// Writes one line if the level is admitted. Callers that build a text ask `admits` first.
    void log(unsigned level, std::string_view text) const
    {
        if (admits(level))
            detail::write(name_, level, text);
    }

private:
    std::string name_;
    std::shared_ptr<std::atomic<unsigned>> mask_;
};

using diagnostic_logger = basic_diagnostic_logger<char>;

} // namespace fl::log
