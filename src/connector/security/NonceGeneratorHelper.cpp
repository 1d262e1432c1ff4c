#include "connector/security/NonceGeneratorHelper.h"

#include "connector/security/EntryUrl.h"

namespace connector::security::v1 {

NonceGeneratorHelperImpl::NonceGeneratorHelperImpl(std::shared_ptr<NonceService> nonces) : nonces_(std::move(nonces)) {}

std::string NonceGeneratorHelperImpl::makeEntryNonce(std::chrono::seconds life)
{
    return nonces_->issue(kEntryPurpose, life);
}

std::string NonceGeneratorHelperImpl::makeUrl(const std::string& baseUrl, const std::string& nonce) const
{
    return entryUrl(baseUrl, nonce);
}

} // namespace connector::security::v1
