#include "connector/http/client/Transfer.h"

#include "connector/http/client/Exchange.h"

namespace connector::http::client {

Transfer::Transfer(std::unique_ptr<HttpClientRequest> request)
    : request_(std::move(request)), proxies_(ProxySettings::fromEnvironment()), start_(Waiter::Clock::now())
{
    Exchange::check(*request_);
    if (request_->file)
        request_->file = std::filesystem::absolute(*request_->file);
}

Future<HttpClientResponse> Transfer::begin(const std::shared_ptr<CancellationToken>& cancellation)
{
    auto future = promise_.future();
    promise_.onCancel([weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->interruption_.raise();
    });
    if (cancellation)
        registration_ = cancellation->onCancel([weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->abandon(std::make_exception_ptr(FutureCancelled()));
        });
    return future;
}

void Transfer::run(TlsClient& tls) noexcept
{
    if (interruption_.raised())
        return; // whoever did that has settled the future
    try {
        Waiter waiter(interruption_, request_->timeout, request_->totalTimeout, start_,
                      "The request to " + Url::parse(request_->url).shown());
        waiter.check();
        promise_.setValue(Exchange(*request_, proxies_, tls, waiter).run());
    } catch (...) {
        if (!interruption_.raised())
            promise_.setException(std::current_exception());
    }
}

void Transfer::abandon(std::exception_ptr why)
{
    interruption_.raise();
    promise_.setException(std::move(why));
}

} // namespace connector::http::client
