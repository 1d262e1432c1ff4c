#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <unistd.h>

#include "connector/http/DiscoveryFile.h"

namespace wiring::test {

/// A folder of its own in which a process announces itself, for as long as this lives.
class RuntimeFolder
{
public:
    RuntimeFolder() : path_((std::filesystem::temp_directory_path() / "runtime-XXXXXX").string())
    {
        if (!::mkdtemp(path_.data()))
            throw std::runtime_error("No folder " + path_);
        if (const char* before = std::getenv(kVariable))
            before_ = before;
        ::setenv(kVariable, path_.c_str(), 1);
    }
    ~RuntimeFolder()
    {
        if (before_.empty())
            ::unsetenv(kVariable);
        else
            ::setenv(kVariable, before_.c_str(), 1);
        std::filesystem::remove_all(path_);
    }
    RuntimeFolder(const RuntimeFolder&) = delete;
    RuntimeFolder& operator=(const RuntimeFolder&) = delete;

    static bool isAnnounced()
    {
        return std::filesystem::exists(connector::http::DiscoveryFile::defaultFolder() /
                                       (std::to_string(::getpid()) + ".json"));
    }

private:
    static constexpr const char* kVariable = "XDG_RUNTIME_DIR";
    std::string path_;
    std::string before_;
};

} // namespace wiring::test
