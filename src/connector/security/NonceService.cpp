#include "connector/security/NonceService.h"

#include <stdexcept>

#include "connector/common/Secret.h"

namespace connector::security::v1 {

std::string NonceServiceImpl::issue(const std::string& purpose, std::chrono::seconds life)
{
    auto nonce = common::randomHex(32);
    const auto now = Clock::now();
    std::lock_guard lock(mutex_);
    if (issued_.size() >= kMaxOutstanding)
        dropExpired(now);
    if (issued_.size() >= kMaxOutstanding)
        throw std::runtime_error("Too many nonces are out.");
    issued_[common::sha256(nonce)] = {purpose, now + life};
    return nonce;
}

bool NonceServiceImpl::redeem(std::string_view nonce, const std::string& purpose)
{
    const auto key = common::sha256(nonce);
    std::lock_guard lock(mutex_);
    const auto found = issued_.find(key);
    if (found == issued_.end() || found->second.purpose != purpose)
        return false;
    const bool alive = Clock::now() < found->second.expires;
    issued_.erase(found);
    return alive;
}

void NonceServiceImpl::dropExpired(Clock::time_point now)
{
    std::erase_if(issued_, [now](const auto& entry) { return entry.second.expires <= now; });
}

} // namespace connector::security::v1
