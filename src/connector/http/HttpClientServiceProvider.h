#pragma once

#include "connector/core/CancellationToken.h"
#include "connector/http/HttpClientMessages.h"

namespace connector::http {

/// Sends requests to servers, those of other machines among them.
class CONNECTOR_API HttpClientServiceProvider : public ServiceProviderAPI<HttpClientServiceProvider>
{
public:
    /// Any thread; does not block. Failures: std::invalid_argument for a request that cannot be sent as it is,
    /// ServiceFault "busy" and "unavailable", FutureCancelled, std::runtime_error for what the network, the server or
    /// the file made impossible; texts name the URL without its query. Cancelling the future and firing
    /// `cancellation` (may be null) both abort the transfer. Outcomes come on a thread of the provider or on the one
    /// that cancels.
    virtual Future<HttpClientResponse> send(std::unique_ptr<HttpClientRequest> request,
                                            const std::shared_ptr<CancellationToken>& cancellation) = 0;
};

} // namespace connector::http
