#include "platform/fl/process.h"

#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <unistd.h>

namespace fl::process {

std::optional<std::uint64_t> startTicks(pid_t pid)
{
    constexpr int kFieldsBefore = 19; // between the program's name and the start time
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    // The name stands in parentheses and may hold anything.
    const auto name = text.rfind(')');
    if (name == std::string::npos)
        return std::nullopt;
    std::istringstream fields(text.substr(name + 1));
    std::string skipped;
    for (int i = 0; i < kFieldsBefore; ++i)
        fields >> skipped;
    std::uint64_t ticks = 0;
    if (!(fields >> ticks))
        return std::nullopt;
    return ticks;
}

std::int64_t startSeconds(std::uint64_t ticks)
{
    timespec sinceBoot{};
    ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto age = sinceBoot.tv_sec - static_cast<std::int64_t>(ticks) / ::sysconf(_SC_CLK_TCK);
    return static_cast<std::int64_t>(std::time(nullptr)) - age;
}

} // namespace fl::process
