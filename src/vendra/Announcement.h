#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace vendra {

/// Where the connector of a process can be reached, as the module announces it to the user's own programs.
struct Announcement
{
    std::string url; ///< "http://127.0.0.1:41873/"
    int pid = 0;
    std::string token;            ///< "" when it is not told
    std::string fingerprint;      ///< of the server's certificate: SHA-256 of its DER, hexadecimal; "" for none
    std::int64_t started = 0;     ///< seconds since the epoch; 0 when it is not told
    std::uint64_t startTicks = 0; ///< as /proc/PID/stat has it; 0 when it is not told
    std::filesystem::path file;   ///< holds the token; only the user can read it
};

/// `$XDG_RUNTIME_DIR/vendra`, or `~/.vendra/run` without it.
std::filesystem::path runtimeFolder();

/// What `<folder>/<pid>.json` announces; empty when there is no such file, when it is another user's, or when it names
/// no address.
std::optional<Announcement> readAnnouncement(const std::filesystem::path& folder, int pid);

} // namespace vendra
