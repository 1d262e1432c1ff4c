#include "vendra/HomeFolder.h"

#include <cstdlib>

#include <pwd.h>
#include <unistd.h>

namespace vendra {

std::filesystem::path homeFolder()
{
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    const passwd* user = ::getpwuid(::getuid());
    return user && user->pw_dir ? user->pw_dir : "";
}

} // namespace vendra
