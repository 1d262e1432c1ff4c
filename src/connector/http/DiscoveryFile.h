#pragma once

#include <filesystem>
#include <string>

#include "connector/Export.h"

namespace connector::http {

/// Tells programs of the same user where this process listens and what lets them in: `<folder>/<pid>.json`, mode 0600,
/// with {"url": …, "pid": …, "token": …}, without a token when it is empty. Removed when this dies.
class CONNECTOR_API DiscoveryFile
{
public:
    /// $XDG_RUNTIME_DIR/vendra, or ~/.vendra/run without that variable. Throws std::runtime_error without a home.
    static std::filesystem::path defaultFolder();

    /// The folder is made with mode 0700 when it is missing (and its parent below the home). Throws std::runtime_error
    /// naming the path when it belongs to another user, when others may write to it, or when it cannot be used.
    DiscoveryFile(const std::string& url, const std::string& token,
                  const std::filesystem::path& folder = defaultFolder());
    ~DiscoveryFile();
    DiscoveryFile(const DiscoveryFile&) = delete;
    DiscoveryFile& operator=(const DiscoveryFile&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace connector::http
