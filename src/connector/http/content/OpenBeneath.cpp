#include "connector/http/content/OpenBeneath.h"

#include <cerrno>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "connector/http/HttpBody.h"

namespace connector::http::content {

namespace {

constexpr int kReading = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;

/// Every segment but the last may be passed through; none goes up, none is empty, and no NUL hides what follows it.
bool isPlain(std::string_view path) noexcept
{
    if (path.find('\0') != std::string_view::npos)
        return false;
    for (;;) {
        const auto slash = path.find('/');
        const std::string_view segment = path.substr(0, slash);
        if (segment.empty() || segment == "." || segment == "..")
            return false;
        if (slash == std::string_view::npos)
            return true;
        path.remove_prefix(slash + 1);
    }
}

int openByKernel(int folder, const char* path) noexcept
{
    open_how how{};
    how.flags = kReading;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    // A folder that is renamed meanwhile makes the kernel give up a link with ".." in it.
    constexpr int kTries = 8;
    long number = -1;
    for (int i = 0; i < kTries; ++i) {
        number = ::syscall(SYS_openat2, folder, path, &how, sizeof how);
        if (number >= 0 || (errno != EAGAIN && errno != EINTR))
            break;
    }
    return static_cast<int>(number);
}

int openStepwise(int folder, const std::string& path)
{
    common::FileDescriptor held;
    std::size_t begin = 0;
    for (auto slash = path.find('/'); slash != std::string::npos; slash = path.find('/', begin)) {
        const std::string segment = path.substr(begin, slash - begin);
        common::FileDescriptor next(
            ::openat(held ? held.number() : folder, segment.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next)
            return -1;
        held = std::move(next);
        begin = slash + 1;
    }
    return ::openat(held ? held.number() : folder, path.c_str() + begin, kReading | O_NOFOLLOW);
}

/// Errors that say something about the path; others are troubles of the machine.
bool meansNothingThere(int error) noexcept
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case EXDEV:
    case EACCES:
    case EPERM:
    case ENAMETOOLONG:
    case ENXIO: // a socket
    case ENODEV:
    case EAGAIN:
    case EINVAL:
    case ESTALE:
        return true;
    default:
        return false;
    }
}

[[noreturn]] void fail(int error, const std::string& path)
{
    if (error == EMFILE || error == ENFILE || error == ENOMEM)
        throw HttpFault(503, "Too many files are open.");
    throw std::system_error(error, std::generic_category(), "Content file " + path);
}

} // namespace

std::optional<OpenFile> openBeneath(int folder, const std::string& path, PathWalk walk)
{
    if (!isPlain(path))
        return std::nullopt;
    int number = -1;
    if (walk == PathWalk::automatic)
        number = openByKernel(folder, path.c_str());
    // Old kernels do not have the call; sandboxes forbid what they do not know.
    if (walk == PathWalk::stepwise || (number < 0 && (errno == ENOSYS || errno == EPERM)))
        number = openStepwise(folder, path);
    if (number < 0) {
        if (meansNothingThere(errno))
            return std::nullopt;
        fail(errno, path);
    }

    OpenFile file{.descriptor = common::FileDescriptor(number)};
    struct stat status
    {};
    if (::fstat(number, &status) != 0)
        fail(errno, path);
    file.mode = status.st_mode;
    file.inode = status.st_ino;
    file.size = static_cast<std::uint64_t>(status.st_size);
    file.modifiedSeconds = status.st_mtim.tv_sec;
    file.modifiedNanoseconds = static_cast<std::uint32_t>(status.st_mtim.tv_nsec);
    return file;
}

} // namespace connector::http::content
