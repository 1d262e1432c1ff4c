#include "connector/security/NonceServiceProviderImpl.h"

#include <stdexcept>

namespace connector::security::v1 {

namespace {

std::chrono::seconds checkedLife(std::int64_t seconds)
{
    if (seconds < 1 || seconds > 86'400)
        throw std::invalid_argument("A nonce lives for 1 to 86400 seconds, not " + std::to_string(seconds) + ".");
    return std::chrono::seconds(seconds);
}

const std::string& checkedPurpose(const std::string& purpose)
{
    if (purpose.empty())
        throw std::invalid_argument("A nonce needs a purpose.");
    return purpose;
}

template <class Make>
auto answered(Make make) -> Future<decltype(make())>
{
    try {
        return makeReadyFuture(make());
    } catch (...) {
        return makeFailedFuture<decltype(make())>(std::current_exception());
    }
}

} // namespace

NonceServiceProviderImpl::NonceServiceProviderImpl(std::shared_ptr<NonceService> nonces,
                                                   std::shared_ptr<NonceGeneratorHelper> helper)
    : nonces_(std::move(nonces)), helper_(std::move(helper))
{}

Future<CreateNonceResponse> NonceServiceProviderImpl::createNonce(const CreateNonce& request)
{
    return answered([&] {
        CreateNonceResponse response;
        response.nonce = nonces_->issue(checkedPurpose(request.purpose), checkedLife(request.lifeSeconds));
        return response;
    });
}

Future<RedeemNonceResponse> NonceServiceProviderImpl::redeemNonce(const RedeemNonce& request)
{
    return answered([&] {
        RedeemNonceResponse response;
        response.valid = nonces_->redeem(request.nonce, checkedPurpose(request.purpose));
        return response;
    });
}

Future<CreateEntryUrlResponse> NonceServiceProviderImpl::createEntryUrl(const CreateEntryUrl& request)
{
    return answered([&] {
        const auto life = checkedLife(request.lifeSeconds);
        helper_->makeUrl(request.baseUrl, {}); // before a nonce is spent on what is no address
        CreateEntryUrlResponse response;
        response.url = helper_->makeUrl(request.baseUrl, helper_->makeEntryNonce(life));
        return response;
    });
}

} // namespace connector::security::v1
