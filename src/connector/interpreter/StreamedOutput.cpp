#include "connector/interpreter/StreamedOutput.h"

#include <stdexcept>
#include <utility>

#include "connector/bayeux/ChannelName.h"
#include "platform/rqe/MessageBus.h"

namespace connector::interpreter::v1 {
namespace {

constexpr std::chrono::milliseconds kBatchTime{5};
constexpr std::size_t kMaxWaiting = 256u << 10;

} // namespace

StreamedOutput::StreamedOutput(std::string channel, std::weak_ptr<Pump> pump)
    : channel_(std::move(channel)), pump_(std::move(pump))
{
    if (!bayeux::isChannelName(channel_) || bayeux::isMetaChannel(channel_) || bayeux::isServiceChannel(channel_))
        throw std::invalid_argument("outputChannel: nothing is published to \"" + channel_ + "\".");
    if (rqe::ProcessBus::isReserved(channel_))
        throw std::invalid_argument("outputChannel: \"" + channel_ +
                                    "\" is reserved, only the system publishes there.");
}

void StreamedOutput::write(rqe::Stream stream, std::string_view text)
{
    while (!add(stream, text))
        publish();
}

bool StreamedOutput::tryWrite(rqe::Stream stream, std::string_view text) { return add(stream, text); }

Pump::Clock::time_point StreamedOutput::pump()
{
    {
        std::lock_guard lock(mutex_);
        const auto due = publishedAt_ + kBatchTime;
        if (!pieces_.empty() && Clock::now() < due)
            return due;
        pumpKnows_ = false;
    }
    publish();
    return Clock::time_point::max();
}

/// False when so much waits already that it has to go out first.
bool StreamedOutput::add(rqe::Stream stream, std::string_view text)
{
    std::lock_guard lock(mutex_);
    if (pieces_.bytes() >= kMaxWaiting)
        return false;
    pieces_.add(stream, text);
    if (!std::exchange(pumpKnows_, true))
        if (const auto pump = pump_.lock())
            pump->wake(shared_from_this());
    return true;
}

std::size_t StreamedOutput::finish()
{
    publish();
    std::lock_guard lock(publishing_);
    if (failure_)
        std::rethrow_exception(failure_);
    return messages_;
}

void StreamedOutput::publish() noexcept
{
    std::lock_guard publishing(publishing_);
    std::vector<Pieces::Piece> pieces;
    {
        std::lock_guard lock(mutex_);
        pieces = pieces_.take();
        publishedAt_ = Clock::now();
    }
    if (failure_)
        return;
    try {
        for (const auto& piece : pieces)
            rqe::ProcessBus::publish(channel_,
                                     "{\"seq\":" + std::to_string(++messages_) + "," + membersOf(piece) + "}");
    } catch (...) {
        failure_ = std::current_exception();
    }
}

} // namespace connector::interpreter::v1
