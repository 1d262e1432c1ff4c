#pragma once

#include <memory>

#include "connector/security/NonceGeneratorHelper.h"
#include "connector/security/NonceService.h"
#include "connector/security/NonceServiceProvider.h"

namespace connector::security::v1 {

/// Answers at once.
class CONNECTOR_API NonceServiceProviderImpl final : public NonceServiceProvider
{
public:
    NonceServiceProviderImpl(std::shared_ptr<NonceService> nonces, std::shared_ptr<NonceGeneratorHelper> helper);

    Future<CreateNonceResponse> createNonce(const CreateNonce& request) override;
    Future<RedeemNonceResponse> redeemNonce(const RedeemNonce& request) override;
    Future<CreateEntryUrlResponse> createEntryUrl(const CreateEntryUrl& request) override;

private:
    const std::shared_ptr<NonceService> nonces_;
    const std::shared_ptr<NonceGeneratorHelper> helper_;
};

} // namespace connector::security::v1
