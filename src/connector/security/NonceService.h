#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "connector/Export.h"

namespace connector::security::v1 {

/// Single-use, short-lived secrets. Threads: any.
class CONNECTOR_API NonceService : public std::enable_shared_from_this<NonceService>
{
public:
    virtual ~NonceService() = default;
    /// A new nonce of 256 random bits, as 64 hexadecimal digits, good for one use for `purpose`. Throws
    /// std::runtime_error when too many are out.
    virtual std::string issue(const std::string& purpose, std::chrono::seconds life) = 0;
    /// True for exactly one caller, for a nonce that was issued for this purpose and has not expired.
    virtual bool redeem(std::string_view nonce, const std::string& purpose) = 0;
};

class CONNECTOR_API NonceServiceImpl final : public NonceService
{
public:
    static constexpr std::size_t kMaxOutstanding = 10'000;

    std::string issue(const std::string& purpose, std::chrono::seconds life) override;
    bool redeem(std::string_view nonce, const std::string& purpose) override;

private:
    using Clock = std::chrono::steady_clock;
    struct Issued
    {
        std::string purpose;
        Clock::time_point expires;
    };

    void dropExpired(Clock::time_point now);

    std::mutex mutex_;
    /// By the nonce's SHA-256: looking one up tells nothing about the others through its timing.
    std::unordered_map<std::string, Issued> issued_;
};

} // namespace connector::security::v1
