#pragma once

#include <memory>

#include "connector/core/CancellationToken.h"
#include "connector/http/HttpClientMessages.h"
#include "connector/http/client/ProxySettings.h"
#include "connector/http/client/TlsClient.h"
#include "connector/http/client/Waiter.h"

namespace connector::http::client {

/// One request between the one who asked, the thread that works on it and whoever gives it up.
class Transfer : public std::enable_shared_from_this<Transfer>
{
public:
    /// Throws std::invalid_argument for a request that must not be sent.
    explicit Transfer(std::unique_ptr<HttpClientRequest> request);

    /// To be called once, before the others. `cancellation` may be null.
    Future<HttpClientResponse> begin(const std::shared_ptr<CancellationToken>& cancellation);

    /// Does the work, on a thread that may block.
    void run(TlsClient& tls) noexcept;

    /// Gives the transfer up: its future fails now, its thread lets go soon. Any thread.
    void abandon(std::exception_ptr why);

private:
    const std::unique_ptr<HttpClientRequest> request_;
    const ProxySettings proxies_;
    const Waiter::Clock::time_point start_;
    Interruption interruption_;
    Promise<HttpClientResponse> promise_;
    CancellationToken::Registration registration_;
};

} // namespace connector::http::client
