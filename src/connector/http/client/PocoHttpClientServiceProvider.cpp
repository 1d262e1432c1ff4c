#include "connector/http/PocoHttpClientServiceProvider.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "connector/common/WorkerPool.h"
#include "connector/core/ServiceFault.h"
#include "connector/http/client/Transfer.h"

namespace connector::http {

namespace {

// A server that hangs holds a thread for as long as its request lets it.
constexpr std::size_t kThreads = 16;
constexpr std::size_t kMaxWaiting = 1'000;

} // namespace

/// What one time of running needs.
struct PocoHttpClientServiceProvider::Crew
{
    std::shared_ptr<client::TlsClient> tls = std::make_shared<client::TlsClient>();
    std::vector<std::weak_ptr<client::Transfer>> transfers; ///< with some that are over
    common::WorkerPool workers{kThreads, kMaxWaiting};      ///< the first to go
};

PocoHttpClientServiceProvider::PocoHttpClientServiceProvider() = default;

PocoHttpClientServiceProvider::~PocoHttpClientServiceProvider() { stopped(); }

Future<HttpClientResponse> PocoHttpClientServiceProvider::send(std::unique_ptr<HttpClientRequest> request,
                                                               const std::shared_ptr<CancellationToken>& cancellation)
{
    try {
        const auto transfer = std::make_shared<client::Transfer>(std::move(request));
        auto future = transfer->begin(cancellation);

        std::lock_guard lock(mutex_);
        if (!accepting_)
            throw ServiceFault("unavailable", "The HTTP client is stopped.");
        if (!crew_)
            crew_ = std::make_unique<Crew>();
        std::erase_if(crew_->transfers, [](const auto& known) { return known.expired(); });
        crew_->transfers.push_back(transfer);
        if (!crew_->workers.post([transfer, tls = crew_->tls] { transfer->run(*tls); }))
            throw ServiceFault("busy", "More than " + std::to_string(kMaxWaiting) + " requests to servers wait.");
        return future;
    } catch (...) {
        return makeFailedFuture<HttpClientResponse>(std::current_exception());
    }
}

void PocoHttpClientServiceProvider::starting()
{
    std::lock_guard lock(mutex_);
    accepting_ = true;
}

void PocoHttpClientServiceProvider::stopped()
{
    std::unique_ptr<Crew> crew;
    {
        std::lock_guard lock(mutex_);
        accepting_ = false;
        crew.swap(crew_);
    }
    if (!crew)
        return;
    const auto why = std::make_exception_ptr(ServiceFault("unavailable", "The HTTP client is stopped."));
    // From the end, lest a thread that is let go takes one that still waits.
    for (auto known = crew->transfers.rbegin(); known != crew->transfers.rend(); ++known)
        if (const auto transfer = known->lock())
            transfer->abandon(why);
}

} // namespace connector::http
