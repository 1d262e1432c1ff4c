#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "vendra/Announcement.h"

namespace vendra {

/// What the user's hosts in `folder` announce, the longest running first. Files that a host left behind are skipped,
/// also when another process has its number now.
/// Throws std::runtime_error for a folder that the module would not write to: a link, or one that others may write to.
std::vector<Announcement> runningHosts(const std::filesystem::path& folder);

/// A table with a head: number, address and local time of the start of each host.
std::string hostTable(const std::vector<Announcement>& hosts);

/// The same as a JSON array, one object with `pid`, `url` and `started` (seconds since 1970, left out when it is not
/// known) for each; no secrets.
std::string hostList(const std::vector<Announcement>& hosts);

/// The host with this number, the newest without one. Throws std::runtime_error when there is none.
Announcement chooseHost(const std::vector<Announcement>& hosts, std::optional<int> pid);

} // namespace vendra
