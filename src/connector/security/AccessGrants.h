#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "connector/Export.h"

namespace connector::security::v1 {

/// The browsers that have been let in, each known by a secret of its own for one port. Only digests are kept. Threads:
/// any.
class CONNECTOR_API AccessGrants
{
public:
    /// At most `most` (one or more) grants; one that was not used for `idle` is over.
    AccessGrants(std::size_t most, std::chrono::milliseconds idle);

    /// The secret of a new grant, 64 hexadecimal digits; the longest unused grant goes when there are too many. Throws
    /// as common::randomHex.
    std::string add(std::uint16_t port);
    /// Whether there is such a grant; its idle time starts anew.
    bool use(std::string_view secret, std::uint16_t port);

private:
    using Clock = std::chrono::steady_clock;
    struct Grant
    {
        std::string digest;
        Clock::time_point used;
    };

    void dropIdle(Clock::time_point now);

    const std::size_t most_;
    const std::chrono::milliseconds idle_;
    std::mutex mutex_;
    std::vector<Grant> grants_;
};

} // namespace connector::security::v1
