#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include <sys/types.h>

#include "connector/common/FileDescriptor.h"

namespace connector::http::content {

/// The folder of a root, kept open. Once a second it is looked whether its path still leads to the same folder.
/// Threads: any.
class RootFolder
{
public:
    /// `path` in bytes of the file system. One that is not absolute is never there: what it means would change with the
    /// process's working directory.
    explicit RootFolder(std::string path) : path_(std::move(path)) {}

    /// Null when there is no such folder.
    std::shared_ptr<const common::FileDescriptor> descriptor();

private:
    bool isUnchanged() const noexcept;
    void reopen();

    const std::string path_;
    std::mutex mutex_;
    std::shared_ptr<const common::FileDescriptor> held_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    std::chrono::steady_clock::time_point checked_;
};

} // namespace connector::http::content
