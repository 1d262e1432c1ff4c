#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/stat.h>

#include "connector/Export.h"
#include "connector/common/FileDescriptor.h"

namespace connector::http::content {

/// A file or folder that was opened for reading, as it was then.
struct OpenFile
{
    common::FileDescriptor descriptor;
    mode_t mode = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;           ///< bytes
    std::int64_t modifiedSeconds = 0; ///< since 1970
    std::uint32_t modifiedNanoseconds = 0;

    bool isRegular() const noexcept { return S_ISREG(mode); }
    bool isFolder() const noexcept { return S_ISDIR(mode); }
};

/// How a path is followed.
enum class PathWalk
{
    automatic, ///< by the kernel, else `stepwise`
    stepwise   ///< one folder after the other; follows no links at all
};

/// Opens what `path` (relative, '/' between segments) leads to from `folder`, without waiting for a pipe's other end.
/// None when there is nothing that may be read, or when the path leads out of the folder: by "..", by a link to a place
/// outside, or by one with an absolute target. Throws HttpFault (503) when the process has no descriptor left,
/// std::system_error naming the path when the disk fails.
CONNECTOR_API std::optional<OpenFile> openBeneath(int folder, const std::string& path,
                                                  PathWalk walk = PathWalk::automatic);

} // namespace connector::http::content
