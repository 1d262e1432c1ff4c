#include "connector/http/content/RootFolder.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include "connector/http/HttpBody.h"

namespace connector::http::content {

namespace {

constexpr std::chrono::seconds kCheckInterval{1};

} // namespace

std::shared_ptr<const common::FileDescriptor> RootFolder::descriptor()
{
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(mutex_);
    if (!held_ || now - checked_ >= kCheckInterval) {
        if (!held_ || !isUnchanged())
            reopen();
        checked_ = now;
    }
    return held_;
}

bool RootFolder::isUnchanged() const noexcept
{
    struct stat status
    {};
    return ::stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

void RootFolder::reopen()
{
    held_.reset();
    if (path_.empty() || path_.front() != '/')
        return;
    auto opened = std::make_shared<common::FileDescriptor>(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!*opened) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM)
            throw HttpFault(503, "Too many files are open.");
        return;
    }
    struct stat status
    {};
    if (::fstat(opened->number(), &status) != 0)
        return;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    held_ = std::move(opened);
}

} // namespace connector::http::content
