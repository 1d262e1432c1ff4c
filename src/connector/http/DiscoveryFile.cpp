#include "connector/http/DiscoveryFile.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/JSON/Object.h>

#include "connector/json/JsonText.h"

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

/// Closes a descriptor.
class Descriptor
{
public:
    explicit Descriptor(int number) noexcept : number_(number) {}
    ~Descriptor()
    {
        if (number_ >= 0)
            ::close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int number() const noexcept { return number_; }

private:
    int number_;
};

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

std::string contentText(const std::string& url, const std::string& token)
{
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    object->set("url", url);
    object->set("pid", static_cast<Poco::Int64>(::getpid()));
    if (!token.empty())
        object->set("token", token);
    return json::write(object) + "\n";
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

DiscoveryFile::DiscoveryFile(const std::string& url, const std::string& token, const std::filesystem::path& folder)
{
    if (folder.filename() == "run")
        makeFolder(folder.parent_path());
    makeFolder(folder);

    const std::filesystem::path target = folder / (std::to_string(::getpid()) + ".json");
    const std::filesystem::path temporary = folder / ("." + std::to_string(::getpid()) + ".json.new");
    ::unlink(temporary.c_str());
    {
        const Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file.number() < 0)
            failWithErrno(temporary, "cannot be made");
        writeAll(file.number(), contentText(url, token), temporary);
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
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

} // namespace connector::http
