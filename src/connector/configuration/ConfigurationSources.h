#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace connector::configuration {

/// One text found for a key in a file or the environment.
struct Assignment
{
    std::string key;
    std::string text;
    std::string source; ///< the file's path or "environment VENDRA_…"
    std::string place;  ///< the source, with the line for a file
};

/// What a source holds, in its order, and what of it could not be read.
struct SourceContent
{
    std::vector<Assignment> assignments;
    std::vector<std::string> problems;
};

/// Reads "key = value" lines; lines that begin with "#" are comments. A file that does not exist holds nothing.
SourceContent readFile(const std::filesystem::path& path);

/// Reads the variables of the declared keys from `environment` (NULL-terminated, "NAME=value"), and reports those that
/// begin as the keys' groups do but are none.
SourceContent readEnvironment(const char* const* environment);

/// The files in the order in which they are read, later ones winning; those whose folder is not known are left out.
std::vector<std::filesystem::path> configurationFiles();

/// "http.idleTimeoutSeconds" → "VENDRA_HTTP_IDLE_TIMEOUT_SECONDS"
std::string environmentName(const std::string& key);

} // namespace connector::configuration
