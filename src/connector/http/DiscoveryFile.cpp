#include "connector/http/DiscoveryFile.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/JSON/Object.h>

#include "connector/common/FileDescriptor.h"
#include "connector/json/JsonText.h"
#include "platform/fl/process.h"

namespace connector::http {

namespace {

[[noreturn]] void fail(const std::filesystem::path& path, const std::string& problem)
{
    throw std::runtime_error("Discovery file: " + path.string() + " " + problem);
}

[[noreturn]] void failWithErrno(const std::filesystem::path& path, const std::string& problem)
{
    const int code = errno;
    fail(path, problem + ": " + std::generic_category().message(code));
}

void makeFolder(const std::filesystem::path& folder)
{
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        failWithErrno(folder, "cannot be made");
    struct stat status
    {};
    // No link is followed: it could lead to a folder that somebody else prepared.
    if (::lstat(folder.c_str(), &status) != 0)
        failWithErrno(folder, "cannot be looked at");
    if (!S_ISDIR(status.st_mode))
        fail(folder, "is not a folder");
    if (status.st_uid != ::geteuid())
        fail(folder, "belongs to another user (" + std::to_string(status.st_uid) + ")");
    if ((status.st_mode & 022) != 0)
        fail(folder, "can be written by others");
}

void writeAll(int descriptor, const std::string& text, const std::filesystem::path& path)
{
    for (std::size_t written = 0; written < text.size();) {
        const auto count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR)
            failWithErrno(path, "cannot be written");
        if (count > 0)
            written += static_cast<std::size_t>(count);
    }
}

std::string contentText(const DiscoveryContent& content)
{
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    object->set("url", content.url);
    object->set("pid", static_cast<Poco::Int64>(::getpid()));
    if (const auto ticks = fl::process::startTicks(::getpid())) {
        object->set("started", fl::process::startSeconds(*ticks));
        object->set("startTicks", *ticks);
    }
    if (!content.token.empty())
        object->set("token", content.token);
    if (!content.fingerprint.empty())
        object->set("fingerprint", content.fingerprint);
    return json::write(object) + "\n";
}

/// The process that a file is about, by its name; none for other names.
std::optional<pid_t> processOf(const std::filesystem::path& file)
{
    const std::string digits = file.stem().string();
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    if (file.extension() != ".json" || error != std::errc() || end != digits.data() + digits.size() || pid <= 0)
        return std::nullopt;
    return pid;
}

/// What a file says of its process's start; none when it says nothing that can be read.
std::optional<std::uint64_t> writtenStartTicks(const std::filesystem::path& file)
{
    try {
        std::ifstream stream(file, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(stream), {}};
        const auto object = json::parse(text).extract<Poco::JSON::Object::Ptr>();
        return object->getValue<std::uint64_t>("startTicks");
    } catch (const std::exception&) {
        return std::nullopt; // of another version, or being written
    }
}

bool isLeftBehind(const std::filesystem::path& file, pid_t pid)
{
    if (::kill(pid, 0) != 0 && errno == ESRCH)
        return true;
    const auto now = fl::process::startTicks(pid);
    const auto then = now ? writtenStartTicks(file) : std::nullopt;
    return then && *then != *now;
}

/// Hosts that were killed leave their files. What cannot be removed stays; it does no harm.
void removeLeftBehind(const std::filesystem::path& folder)
{
    constexpr int kMostLookedAt = 1'000;
    constexpr off_t kMostBytes = 65'536;
    std::error_code ignored;
    int count = 0;
    for (std::filesystem::directory_iterator entry(folder, ignored), end; entry != end && count < kMostLookedAt;
         entry.increment(ignored), ++count) {
        const auto& path = entry->path();
        const auto pid = processOf(path);
        struct stat status
        {};
        if (pid && *pid != ::getpid() && ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            status.st_uid == ::geteuid() && status.st_size <= kMostBytes && isLeftBehind(path, *pid))
            ::unlink(path.c_str());
    }
}

} // namespace

std::filesystem::path DiscoveryFile::defaultFolder()
{
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime == '/')
        return std::filesystem::path(runtime) / "vendra";
    const char* home = std::getenv("HOME");
    if (!home || *home != '/')
        throw std::runtime_error("Discovery file: neither XDG_RUNTIME_DIR nor HOME names a folder");
    return std::filesystem::path(home) / ".vendra" / "run";
}

DiscoveryFile::DiscoveryFile(const DiscoveryContent& content, const std::filesystem::path& folder)
{
    if (folder.filename() == "run")
        makeFolder(folder.parent_path());
    makeFolder(folder);
    removeLeftBehind(folder);

    const std::filesystem::path target = folder / (std::to_string(::getpid()) + ".json");
    const std::filesystem::path temporary = folder / ("." + std::to_string(::getpid()) + ".json.new");
    ::unlink(temporary.c_str());
    {
        const common::FileDescriptor file(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file)
            failWithErrno(temporary, "cannot be made");
        writeAll(file.number(), contentText(content), temporary);
        struct stat status
        {};
        if (::fstat(file.number(), &status) != 0)
            failWithErrno(temporary, "cannot be looked at");
        device_ = status.st_dev;
        inode_ = status.st_ino;
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        errno = code;
        failWithErrno(target, "cannot be put in place");
    }
    path_ = target;
}

DiscoveryFile::~DiscoveryFile()
{
    struct stat status
    {};
    if (::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_)
        ::unlink(path_.c_str());
}

} // namespace connector::http
