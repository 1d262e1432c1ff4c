#pragma once

#include "connector/http/HttpServiceProvider.h"

namespace connector::bayeux {

/// Takes posted messages of the bus, sends them as a BayeuxRequest to what is left of the address, and answers with the
/// replies. A client that goes away cancels what it waits for.
///
/// Refusals: 415 for anything but application/json; 413 beyond 1 MiB, 400 for what is no JSON; 503 while the bus is not
/// served. Other failures are told within the protocol, with status 200: clients repeat a request that failed in HTTP
/// for ever.
class CONNECTOR_API BayeuxLongPollServiceProvider final : public http::RestServiceProvider
{
public:
    static constexpr std::uint64_t kMaxBytes = 1u << 20;

protected:
    std::vector<std::string> methods() const override { return {"POST"}; }
    MessageFuture post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context) override;
};

} // namespace connector::bayeux
