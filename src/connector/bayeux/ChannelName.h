#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "connector/Export.h"

/// Names of channels: "/" and segments of letters, digits and -_!~()$@ between slashes, at most kMaxChannelBytes.
/// A pattern is such a name with a last segment "*" (one segment) or "**" (one or more). Threads: any.
namespace connector::bayeux {

inline constexpr std::size_t kMaxChannelBytes = 1'000;
/// Stands before a channel's name in the one where joins and leaves are told.
inline constexpr std::string_view kPresencePrefix = "/presence";

/// A name without a pattern.
CONNECTOR_API bool isChannelName(std::string_view name) noexcept;
CONNECTOR_API bool isPattern(std::string_view name) noexcept;
CONNECTOR_API bool isMetaChannel(std::string_view name) noexcept;
CONNECTOR_API bool isServiceChannel(std::string_view name) noexcept;

/// Every pattern that matches the channel. "/*" and "/**" match neither meta nor service channels.
CONNECTOR_API std::vector<std::string> patternsOf(std::string_view channel);
/// Whether `name`, a channel or a pattern, covers the channel.
CONNECTOR_API bool covers(std::string_view name, std::string_view channel);

} // namespace connector::bayeux
