#include "connector/http/engine/IncomingBody.h"

#include <algorithm>

namespace connector::http::engine {

namespace {

/// A large body that comes slower than this on the whole takes too long.
constexpr std::uint64_t kSlowestUpload = 256u << 10;

} // namespace

void IncomingBody::begin(const RequestHead& head)
{
    reader_.emplace(head, core_->limits.bodyBytes);
    store_.begin(reader_->announced());
    complete_ = false;
    refused_ = {};
}

bool IncomingBody::isSlow(Clock::time_point now) const noexcept
{
    if (now - begun_ < core_->settings.bodyRateGrace)
        return false;
    const auto seconds = std::chrono::duration<double>(now - begun_).count();
    return static_cast<double>(bytes_) < seconds * static_cast<double>(core_->settings.minBodyRate);
}

IncomingBody::State IncomingBody::read(ReadBuffer& buffer)
{
    std::string_view bytes = buffer.view();
    std::string_view content;
    const auto before = bytes.size();
    const auto state = reader_->read(bytes, content);
    const auto used = before - bytes.size();
    buffer.consume(used); // `content` stays where it is until the next read
    bytes_ += used;

    if (state == BodyReader::State::refused)
        return refuse(reader_->refused());
    if (reception_ && store_.size() + content.size() > reception_->maxBytes)
        return refuse({413, "The request body is too large."});
    if (const auto refused = store_.append(content))
        return refuse(*refused);
    complete_ = state == BodyReader::State::complete;
    return complete_ ? State::complete : State::needMore;
}

IncomingBody::State IncomingBody::refuse(const Refused& refused)
{
    refused_ = refused;
    return State::refused;
}

IncomingBody::State IncomingBody::beginReception(Promise<ReceivedBody> promise, std::uint64_t maxBytes)
{
    reception_.emplace(Reception{std::move(promise), maxBytes});
    begun_ = Clock::now();
    bytes_ = 0;
    if (std::max(announced().value_or(0), store_.size()) > maxBytes)
        return refuse({413, "The request body is too large."});
    if (const auto refused = store_.ask())
        return refuse(*refused);
    return State::needMore;
}

Promise<ReceivedBody> IncomingBody::takePromise()
{
    auto promise = std::move(reception_->promise);
    reception_.reset();
    return promise;
}

void IncomingBody::deliver() { takePromise().setValue(store_.take()); }

void IncomingBody::fail(const Refused& refused)
{
    refused_ = refused;
    store_.drop();
    takePromise().setException(HttpFault(refused.status, refused.text));
}

void IncomingBody::drop()
{
    store_.drop();
    if (reception_)
        takePromise().setException(FutureCancelled());
}

std::chrono::milliseconds IncomingBody::receptionTime(std::uint64_t maxBytes) const
{
    const std::uint64_t most = announced().value_or(std::min(maxBytes, core_->limits.bodyBytes));
    return core_->settings.bodyTimeout + std::chrono::seconds(most / kSlowestUpload);
}

} // namespace connector::http::engine
