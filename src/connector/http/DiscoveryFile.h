#pragma once

#include <filesystem>
#include <string>

#include <sys/types.h>

#include "connector/Export.h"

namespace connector::http {

/// What programs of the same user are told.
struct DiscoveryContent
{
    std::string url;
    std::string token; ///< empty: left out
    /// SHA-256 of the DER form of the server's certificate, 64 hexadecimal digits; empty: left out.
    std::string fingerprint;
};

/// Tells programs of the same user where this process listens and what lets them in: `<folder>/<pid>.json`, mode 0600,
/// with {"url": …, "pid": …, "started": …, "startTicks": …, "token": …, "fingerprint": …}. `started` is in seconds
/// since the epoch; `startTicks` is the start time of /proc/PID/stat, by which a process that got the same number later
/// is told apart. Removed when this dies, unless a later one has taken its place.
class CONNECTOR_API DiscoveryFile
{
public:
    /// $XDG_RUNTIME_DIR/vendra, or ~/.vendra/run without that variable. Throws std::runtime_error without a home.
    static std::filesystem::path defaultFolder();

    /// Replaces what a process of the same number left behind, and removes the files of this user's processes that are
    /// gone. The folder is made with mode 0700 when it is missing (and its parent below the home). Throws
    /// std::runtime_error naming the path when it belongs to another user, when others may write to it, or when it
    /// cannot be used.
    explicit DiscoveryFile(const DiscoveryContent& content, const std::filesystem::path& folder = defaultFolder());
    ~DiscoveryFile();
    DiscoveryFile(const DiscoveryFile&) = delete;
    DiscoveryFile& operator=(const DiscoveryFile&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

} // namespace connector::http
