#include "connector/security/AccessKey.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "connector/common/FileDescriptor.h"
#include "connector/common/Secret.h"

namespace connector::security::v1 {

namespace {

[[noreturn]] void failAt(const std::filesystem::path& file, const std::string& problem)
{
    throw std::runtime_error("The access key file " + file.string() + " " + problem + ".");
}

[[noreturn]] void failUnread(const std::filesystem::path& file)
{
    failAt(file, "cannot be read: " + std::generic_category().message(errno));
}

std::string readKeyFile(const std::filesystem::path& file)
{
    // Without waiting for the writer of a pipe.
    const common::FileDescriptor opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status
    {};
    if (!opened || ::fstat(opened.number(), &status) != 0)
        failUnread(file);
    if (!S_ISREG(status.st_mode))
        failAt(file, "is no regular file");
    if (status.st_uid != ::geteuid())
        failAt(file, "belongs to another user (" + std::to_string(status.st_uid) + ")");
    if ((status.st_mode & 077) != 0)
        failAt(file, "is open to others; its mode must be 0600 or 0400");

    std::string text(AccessKey::kMaxFileBytes + 1, '\0');
    std::size_t have = 0;
    while (have < text.size()) {
        const auto count = ::read(opened.number(), text.data() + have, text.size() - have);
        if (count == 0)
            break;
        if (count < 0 && errno != EINTR)
            failUnread(file);
        have += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    if (have > AccessKey::kMaxFileBytes)
        failAt(file, "has more than " + std::to_string(AccessKey::kMaxFileBytes) + " bytes");
    text.resize(have);
    return text;
}

} // namespace

AccessKey::AccessKey(const std::filesystem::path& file)
{
    constexpr const char* kSpace = " \t\r\n";
    const std::string text = readKeyFile(file);
    std::string_view key = text;
    key.remove_prefix(std::min(key.find_first_not_of(kSpace), key.size()));
    key = key.substr(0, key.find_last_not_of(kSpace) + 1);
    if (key.size() < kMinCharacters)
        failAt(file, "holds fewer than " + std::to_string(kMinCharacters) + " characters");
    // Others cannot stand in an Authorization field.
    if (!std::all_of(key.begin(), key.end(), [](char c) { return c > 0x20 && c < 0x7f; }))
        failAt(file, "holds spaces or characters that are not ASCII");
    digest_ = common::sha256(key);
}

bool AccessKey::matches(std::string_view candidate) const
{
    return common::equalDigests(common::sha256(candidate), digest_);
}

} // namespace connector::security::v1
