#include "connector/configuration/ConfigurationSources.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <system_error>

#include "connector/configuration/KnownKeys.h"
#include "connector/configuration/ValueText.h"
#include "platform/fl/filesystem.h"

namespace connector::configuration {

namespace {

constexpr std::uintmax_t kMaxFileBytes = 1u << 20;

std::string variable(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

} // namespace

SourceContent readFile(const std::filesystem::path& path)
{
    SourceContent content;
    const auto source = path.string();
    std::error_code failed;
    const auto status = std::filesystem::status(path, failed);
    if (status.type() == std::filesystem::file_type::not_found)
        return content;
    if (!std::filesystem::is_regular_file(status)) {
        content.problems.push_back(source + ": cannot be read: " + (failed ? failed.message() : "not a file"));
        return content;
    }
    if (std::filesystem::file_size(path, failed) > kMaxFileBytes) {
        content.problems.push_back(source + ": is longer than " + std::to_string(kMaxFileBytes) + " bytes");
        return content;
    }
    std::ifstream file(path);
    if (!file) {
        content.problems.push_back(source + ": cannot be opened");
        return content;
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const auto place = source + ":" + std::to_string(number);
        line = trimmed(line);
        if (line.empty() || line.front() == '#')
            continue;
        const auto equals = line.find('=');
        if (equals == std::string::npos)
            content.problems.push_back(place + ": expected \"key = value\" but found \"" + line + "\"");
        else
            content.assignments.push_back(
                {trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)), source, place});
    }
    if (file.bad())
        content.problems.push_back(source + ": could not be read to its end");
    return content;
}

std::string environmentName(const std::string& key)
{
    std::string name = "VENDRA_";
    for (const char c : key) {
        if (std::isupper(static_cast<unsigned char>(c)))
            name += '_';
        name += c == '.' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return name;
}

SourceContent readEnvironment(const char* const* environment)
{
    std::map<std::string, std::string> keys;
    std::set<std::string> groups;
    for (const auto& key : knownKeys()) {
        keys.emplace(environmentName(key.name), key.name);
        groups.insert(environmentName(key.name.substr(0, key.name.find('.') + 1)));
    }

    SourceContent content;
    for (; environment && *environment; ++environment) {
        const std::string entry = *environment;
        const auto equals = entry.find('=');
        if (equals == std::string::npos)
            continue;
        const auto name = entry.substr(0, equals);
        const auto source = "environment " + name;
        if (const auto key = keys.find(name); key != keys.end())
            content.assignments.push_back({key->second, trimmed(entry.substr(equals + 1)), source, source});
        else if (name.starts_with("VENDRA_") && groups.contains(name.substr(0, name.find('_', 7) + 1)))
            content.problems.push_back(source + ": there is no key of that name");
    }
    return content;
}

std::vector<std::filesystem::path> configurationFiles()
{
    std::vector<std::filesystem::path> files;
    if (const auto root = fl::filesystem::get_install_path(); !root.empty())
        files.push_back(fl::filesystem::toNative(root) / "connector.conf");
    // A relative XDG_CONFIG_HOME is to be ignored (XDG Base Directory 0.8).
    std::filesystem::path folder = variable("XDG_CONFIG_HOME");
    if (folder.is_relative()) {
        folder = variable("HOME");
        if (!folder.empty())
            folder /= ".config";
    }
    if (!folder.empty())
        files.push_back(folder / "vendra" / "connector.conf");
    return files;
}

} // namespace connector::configuration
