#pragma once

#include <cstdint>
#include <string>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"

namespace connector::security::v1 {

class NonceServiceProvider;

/// Base of the requests to "connector/v1/nonce", for code of this process.
using NonceMessage = ServiceMessage<NonceServiceProvider>;

/// Asks for a secret that is good for one use.
class CONNECTOR_API CreateNonce final : public NonceMessage
{
public:
    std::string purpose; ///< not empty; whoever redeems it names the same
    std::int64_t lifeSeconds = 600;

    MessageFuture deliverTo(std::shared_ptr<NonceServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API CreateNonceResponse final : public Message
{
public:
    std::string nonce; ///< 64 hexadecimal digits
};

/// Uses a nonce up.
class CONNECTOR_API RedeemNonce final : public NonceMessage
{
public:
    std::string nonce;
    std::string purpose;

    MessageFuture deliverTo(std::shared_ptr<NonceServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API RedeemNonceResponse final : public Message
{
public:
    bool valid = false; ///< true for one redeemer
};

/// Asks for an address that lets one browser in.
class CONNECTOR_API CreateEntryUrl final : public NonceMessage
{
public:
    std::string baseUrl; ///< "http://127.0.0.1:8080/"
    std::int64_t lifeSeconds = 600;

    MessageFuture deliverTo(std::shared_ptr<NonceServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API CreateEntryUrlResponse final : public Message
{
public:
    std::string url;
};

} // namespace connector::security::v1
