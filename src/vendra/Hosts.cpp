#include "vendra/Hosts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <tuple>

#include <sys/stat.h>
#include <unistd.h>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "platform/fl/process.h"

namespace vendra {
namespace {

constexpr int kMostFiles = 10'000;

bool runs(const Announcement& host)
{
    if (::kill(host.pid, 0) != 0 && errno == ESRCH)
        return false;
    return host.startTicks == 0 || host.startTicks == fl::process::startTicks(host.pid);
}

/// The number in "<number>.json", 0 for another name.
int numberIn(const std::filesystem::path& file)
{
    std::string digits = file.stem().string();
    const char* end = digits.data() + digits.size();
    int pid = 0;
    auto [rest, error] = std::from_chars(digits.data(), end, pid);
    return file.extension() == ".json" && error == std::errc() && rest == end && pid > 0 ? pid : 0;
}

/// What somebody else put there could lead the user to a server of theirs.
void checkFolder(const std::filesystem::path& folder)
{
    struct stat status = {};
    if (::lstat(folder.c_str(), &status) != 0)
        return; // no folder, no hosts
    const char* wrong = !S_ISDIR(status.st_mode)                 ? "is not a folder"
                        : status.st_uid != ::geteuid()           ? "belongs to another user"
                        : (status.st_mode & (S_IWGRP | S_IWOTH)) ? "can be written by others"
                                                                 : nullptr;
    if (wrong)
        throw std::runtime_error("hosts are not looked for: " + folder.string() + " " + wrong);
}

std::string localTime(std::int64_t seconds)
{
    std::time_t time = seconds;
    std::tm parts = {};
    char text[40] = "-";
    if (seconds > 0 && ::localtime_r(&time, &parts))
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

} // namespace

std::vector<Announcement> runningHosts(const std::filesystem::path& folder)
{
    checkFolder(folder);
    std::vector<Announcement> hosts;
    std::error_code none; // no folder, no hosts
    int count = 0;
    for (std::filesystem::directory_iterator entry(folder, none), end; entry != end && count < kMostFiles;
         entry.increment(none), ++count) {
        int pid = numberIn(entry->path());
        auto host = pid > 0 ? readAnnouncement(folder, pid) : std::nullopt;
        if (host && runs(*host))
            hosts.push_back(std::move(*host));
    }
    std::sort(hosts.begin(), hosts.end(), [](const Announcement& a, const Announcement& b) {
        return std::tie(a.startTicks, a.pid) < std::tie(b.startTicks, b.pid);
    });
    return hosts;
}

std::string hostTable(const std::vector<Announcement>& hosts)
{
    std::vector<std::array<std::string, 3>> rows = {{"PID", "URL", "STARTED"}};
    for (const Announcement& host : hosts)
        rows.push_back({std::to_string(host.pid), host.url, localTime(host.started)});
    std::array<std::size_t, 2> widths = {};
    for (const auto& row : rows)
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size() + 2);
    std::string text;
    for (auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i)
            row[i].resize(widths[i], ' ');
        text += row[0] + row[1] + row[2] + "\n";
    }
    return text;
}

std::string hostList(const std::vector<Announcement>& hosts)
{
    Poco::JSON::Array list;
    for (const Announcement& host : hosts) {
        Poco::JSON::Object::Ptr object = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        object->set("pid", host.pid);
        object->set("url", host.url);
        if (host.started > 0)
            object->set("started", host.started);
        list.add(object);
    }
    std::ostringstream text;
    list.stringify(text);
    return text.str() + "\n";
}

Announcement chooseHost(const std::vector<Announcement>& hosts, std::optional<int> pid)
{
    if (!pid && hosts.empty())
        throw std::runtime_error("no host with a connector is running");
    auto found = std::find_if(hosts.begin(), hosts.end(), [&](const Announcement& host) { return host.pid == pid; });
    if (!pid)
        found = hosts.end() - 1;
    if (found == hosts.end())
        throw std::runtime_error("no host with a connector is running as process " + std::to_string(*pid));
    return *found;
}

} // namespace vendra
