#include "connector/security/AccessGrants.h"

#include <algorithm>

#include "connector/common/Secret.h"

namespace connector::security::v1 {

namespace {

std::string grantDigest(std::string_view secret, std::uint16_t port)
{
    return common::sha256(std::to_string(port) + ' ' + std::string(secret));
}

} // namespace

AccessGrants::AccessGrants(std::size_t most, std::chrono::milliseconds idle)
    : most_(std::max<std::size_t>(most, 1)), idle_(idle)
{}

std::string AccessGrants::add(std::uint16_t port)
{
    auto secret = common::randomHex(32);
    const auto now = Clock::now();
    std::lock_guard lock(mutex_);
    dropIdle(now);
    if (grants_.size() >= most_)
        grants_.erase(std::min_element(grants_.begin(), grants_.end(),
                                       [](const Grant& a, const Grant& b) { return a.used < b.used; }));
    grants_.push_back({grantDigest(secret, port), now});
    return secret;
}

bool AccessGrants::use(std::string_view secret, std::uint16_t port)
{
    const auto digest = grantDigest(secret, port);
    const auto now = Clock::now();
    std::lock_guard lock(mutex_);
    dropIdle(now);
    Grant* found = nullptr;
    for (auto& grant : grants_)
        if (common::equalDigests(grant.digest, digest))
            found = &grant;
    if (found)
        found->used = now;
    return found != nullptr;
}

void AccessGrants::dropIdle(Clock::time_point now)
{
    std::erase_if(grants_, [&](const Grant& grant) { return now - grant.used >= idle_; });
}

} // namespace connector::security::v1
