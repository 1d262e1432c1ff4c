#include "connector/http/engine/DescriptorLimit.h"

#include <algorithm>

#include <sys/resource.h>

namespace connector::http::engine {

std::size_t affordableConnections(std::size_t wanted)
{
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0 || descriptors.rlim_cur == RLIM_INFINITY)
        return wanted;
    const rlim_t needed = std::min<rlim_t>(wanted + wanted / 3 + 1, descriptors.rlim_max);
    if (descriptors.rlim_cur < needed) {
        const rlimit raised{needed, descriptors.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0)
            descriptors = raised;
    }
    return std::min(wanted, static_cast<std::size_t>(descriptors.rlim_cur / 4 * 3));
}

} // namespace connector::http::engine
