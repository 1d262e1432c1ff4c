#include "vendra/Announcement.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>

#include "vendra/HomeFolder.h"

namespace vendra {

std::filesystem::path runtimeFolder()
{
    const char* base = std::getenv("XDG_RUNTIME_DIR");
    if (base && *base)
        return std::filesystem::path(base) / "vendra";
    return homeFolder() / ".vendra" / "run";
}

std::optional<Announcement> readAnnouncement(const std::filesystem::path& folder, int pid)
{
    std::filesystem::path path = folder / (std::to_string(pid) + ".json");
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::nullopt;
    std::string text(std::istreambuf_iterator<char>(file), {});
    try {
        auto object = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
        std::string url = object->optValue<std::string>("url", "");
        if (url.empty())
            return std::nullopt;
        return Announcement{url, path};
    } catch (const Poco::Exception&) {
        return std::nullopt; // half written or not ours: no address
    }
}

} // namespace vendra
