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
    bytes_ = 0;
    complete_ = false;
    beginning_.clear();
    begun_ = Clock::now();
}

bool IncomingBody::isSlow(Clock::time_point now) const noexcept
{
    if (now - begun_ < core_->settings.bodyRateGrace)
        return false;
    const auto seconds = std::chrono::duration<double>(now - begun_).count();
    return static_cast<double>(bytes_) < seconds * static_cast<double>(core_->settings.minBodyRate);
}

/// What the buffer has of the body; it stays there until it is consumed.
IncomingBody::Portion IncomingBody::nextPortion(const ReadBuffer& buffer)
{
    std::string_view bytes = buffer.view();
    Portion portion;
    const auto before = bytes.size();
    portion.state = reader_->read(bytes, portion.content);
    portion.used = before - bytes.size();
    bytes_ += portion.used;
    complete_ = portion.state == BodyReader::State::complete;
    return portion;
}

IncomingBody::State IncomingBody::read(ReadBuffer& buffer, std::string& text)
{
    const auto portion = nextPortion(buffer);
    if (portion.state == BodyReader::State::refused)
        return refuse(reader_->refused());
    const bool kept = keep(portion.content, text);
    buffer.consume(portion.used);
    if (!kept)
        return refuse({503, "Too many large requests at a time."});
    if (complete_)
        return State::complete;
    return text.size() > core_->settings.memoryBodyBytes ? State::large : State::needMore;
}

/// Counts what has arrived of the body; false when all bodies together are too large.
bool IncomingBody::keep(std::string_view content, std::string& text)
{
    if (content.empty())
        return true;
    // Room follows what has arrived, not what was announced; the last step is exact.
    if (text.capacity() < text.size() + content.size() && announced())
        text.reserve(static_cast<std::size_t>(
            std::min<std::uint64_t>(text.size() + content.size() + reader_->left(),
                                    std::max<std::uint64_t>(text.size() + content.size(), text.capacity() * 2))));
    text.append(content);
    if (!hold_)
        hold_ = std::make_shared<BodyHold>(core_);
    return hold_->growTo(text.size());
}

IncomingBody::State IncomingBody::refuse(const Refused& refused)
{
    refused_ = refused;
    return State::refused;
}

IncomingBody::State IncomingBody::beginUpload(Promise<SpooledBody> promise, std::uint64_t maxBytes)
{
    upload_.emplace(core_, std::move(promise), maxBytes);
    if (const auto refused = upload_->append(beginning_))
        return refuse(*refused);
    dropBeginning();
    release();
    begun_ = Clock::now();
    bytes_ = 0;
    return State::needMore;
}

IncomingBody::State IncomingBody::readUpload(ReadBuffer& buffer)
{
    const auto portion = nextPortion(buffer);
    if (portion.state == BodyReader::State::refused)
        return refuse(reader_->refused());
    if (const auto refused = upload_->append(portion.content))
        return refuse(*refused);
    buffer.consume(portion.used);
    return complete_ ? State::complete : State::needMore;
}

Upload IncomingBody::takeUpload()
{
    Upload taken = std::move(*upload_);
    upload_.reset();
    return taken;
}

void IncomingBody::dropUpload()
{
    if (upload_)
        takeUpload().drop();
}

std::chrono::milliseconds IncomingBody::uploadTime(std::uint64_t maxBytes) const
{
    const std::uint64_t most = announced().value_or(std::min(maxBytes, core_->limits.bodyBytes));
    return core_->settings.bodyTimeout + std::chrono::seconds(most / kSlowestUpload);
}

} // namespace connector::http::engine
