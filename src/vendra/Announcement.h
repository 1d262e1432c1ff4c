#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vendra {

/// Where the connector of this process can be reached, as the module announces it to the user's own programs.
struct Announcement
{
    std::string url;
    std::filesystem::path file; ///< holds the token; only the user can read it
};

/// `$XDG_RUNTIME_DIR/vendra`, or `~/.vendra/run` without it.
std::filesystem::path runtimeFolder();

/// What `<folder>/<pid>.json` announces; empty when there is no such file or it names no address.
std::optional<Announcement> readAnnouncement(const std::filesystem::path& folder, int pid);

} // namespace vendra
