#pragma once

#include "connector/security/NonceMessages.h"

namespace connector::security::v1 {

/// Nonces and entry addresses as messages. Failures: std::invalid_argument for an empty purpose, a life outside 1 …
/// 86400 seconds and a base URL that is none; std::runtime_error when too many nonces are out.
class CONNECTOR_API NonceServiceProvider : public ServiceProviderAPI<NonceServiceProvider>
{
public:
    virtual Future<CreateNonceResponse> createNonce(const CreateNonce& request) = 0;
    virtual Future<RedeemNonceResponse> redeemNonce(const RedeemNonce& request) = 0;
    virtual Future<CreateEntryUrlResponse> createEntryUrl(const CreateEntryUrl& request) = 0;
};

} // namespace connector::security::v1
