#pragma once

#include "connector/configuration/Configuration.h"
#include "connector/http/HttpServiceProvider.h"

namespace connector::bayeux {

/// Takes posted messages of the bus, sends them as a BayeuxRequest to what is left of the address, and answers with the
/// replies. A client that goes away cancels what it waits for.
///
/// Refusals: 415 for anything but application/json; 413 far beyond bus.maxMessageBytes (kMostTooLongBytes), 400 for
/// what is no JSON; 503 while the bus is not served. Other failures are told within the protocol, with status 200:
/// clients repeat a request that failed in HTTP for ever.
class CONNECTOR_API BayeuxLongPollServiceProvider final : public http::RestServiceProvider
{
public:
    /// Of a request's body, without a configuration.
    static constexpr std::uint64_t kMaxBytes = 1u << 20;

    /// Before it serves.
    void configure(std::shared_ptr<const configuration::Configuration> configuration)
    {
        configuration_ = std::move(configuration);
    }

protected:
    std::vector<std::string> methods() const override { return {"POST"}; }
    MessageFuture post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context) override;

private:
    std::shared_ptr<const configuration::Configuration> configuration_;
};

} // namespace connector::bayeux
