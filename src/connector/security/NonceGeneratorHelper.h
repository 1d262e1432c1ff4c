#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "connector/Export.h"
#include "connector/security/NonceService.h"

namespace connector::security::v1 {

/// The purpose of the nonces that let a browser in.
inline constexpr const char* kEntryPurpose = "entry";

/// Makes the one-time addresses by which browsers get in. Threads: any.
class CONNECTOR_API NonceGeneratorHelper : public std::enable_shared_from_this<NonceGeneratorHelper>
{
public:
    virtual ~NonceGeneratorHelper() = default;
    /// A new nonce that lets one browser in. Throws as NonceService::issue.
    virtual std::string makeEntryNonce(std::chrono::seconds life) = 0;
    /// `baseUrl` ("http://127.0.0.1:8080/") with the nonce. Throws std::invalid_argument for what is no such URL.
    virtual std::string makeUrl(const std::string& baseUrl, const std::string& nonce) const = 0;
    virtual std::shared_ptr<NonceGeneratorHelper> getPtr() = 0;
};

class CONNECTOR_API NonceGeneratorHelperImpl final : public NonceGeneratorHelper
{
public:
    explicit NonceGeneratorHelperImpl(std::shared_ptr<NonceService> nonces);

    std::string makeEntryNonce(std::chrono::seconds life) override;
    std::string makeUrl(const std::string& baseUrl, const std::string& nonce) const override;
    std::shared_ptr<NonceGeneratorHelper> getPtr() override { return shared_from_this(); }

private:
    const std::shared_ptr<NonceService> nonces_;
};

} // namespace connector::security::v1
