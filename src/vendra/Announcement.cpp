#include "vendra/Announcement.h"

#include <cstdlib>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>

#include "vendra/HomeFolder.h"

namespace vendra {

std::filesystem::path runtimeFolder()
{
    const char* base = std::getenv("XDG_RUNTIME_DIR");
    if (base && *base == '/')
        return std::filesystem::path(base) / "vendra";
    return homeFolder() / ".vendra" / "run";
}

std::optional<Announcement> readAnnouncement(const std::filesystem::path& folder, int pid)
{
    constexpr std::size_t kMostBytes = 65'536;
    Announcement found;
    found.pid = pid;
    found.file = folder / (std::to_string(pid) + ".json");
    struct stat status = {};
    if (::lstat(found.file.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != ::geteuid())
        return std::nullopt;
    std::ifstream file(found.file, std::ios::binary);
    std::string text(kMostBytes, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    try {
        auto object = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
        found.url = object->optValue<std::string>("url", "");
        found.token = object->optValue<std::string>("token", "");
        found.fingerprint = object->optValue<std::string>("fingerprint", "");
        found.started = object->optValue<std::int64_t>("started", 0);
        found.startTicks = object->optValue<std::uint64_t>("startTicks", 0);
    } catch (const Poco::Exception&) {
        return std::nullopt; // half written or not ours: no address
    }
    if (found.url.empty())
        return std::nullopt;
    return found;
}

} // namespace vendra
