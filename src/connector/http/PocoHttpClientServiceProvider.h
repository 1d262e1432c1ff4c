#pragma once

#include <memory>
#include <mutex>

#include "connector/http/HttpClientServiceProvider.h"

namespace connector::http {

/// Sends requests from a few threads of its own, which are started as they are needed; what comes in between waits, up
/// to a bound. Takes proxies and certificate stores from the environment, see docs/http.md. Stopping fails what runs
/// and waits, and ends the threads; it waits for a host name that is being looked up at that moment.
class CONNECTOR_API PocoHttpClientServiceProvider final : public HttpClientServiceProvider
{
public:
    PocoHttpClientServiceProvider();
    ~PocoHttpClientServiceProvider() override;

    Future<HttpClientResponse> send(std::unique_ptr<HttpClientRequest> request,
                                    const std::shared_ptr<CancellationToken>& cancellation) override;

protected:
    void starting() override;
    void stopped() override;

private:
    struct Crew;

    std::mutex mutex_;
    bool accepting_ = false;
    std::unique_ptr<Crew> crew_; ///< null until the first request
};

} // namespace connector::http
