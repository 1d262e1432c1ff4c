#include "connector/bayeux/Receiver.h"

#include "connector/common/Log.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

BayeuxEvent::BayeuxEvent(std::string channel, const Poco::Dynamic::Var& data, bool lazy)
    : BayeuxEvent(Written(), std::move(channel), json::write(data), lazy)
{}

BayeuxEvent::BayeuxEvent(Written, std::string channel, std::string_view json, bool lazy)
    : channel_(std::move(channel)), lazy_(lazy)
{
    constexpr std::string_view kHead = R"([{"channel":)";
    constexpr std::string_view kMiddle = R"(,"data":)";
    constexpr std::string_view kTail = "}]";
    std::string text;
    text.reserve(kHead.size() + channel_.size() + 2 + kMiddle.size() + json.size() + kTail.size());
    text += kHead;
    json::appendString(text, channel_);
    text.append(kMiddle);
    dataAt_ = text.size() - 1; // without the bracket in front
    text.append(json).append(kTail);
    frame_ = std::make_shared<const std::string>(std::move(text));
}

EventPtr BayeuxEvent::ofText(std::string channel, std::string_view json, bool lazy)
{
    return EventPtr(new BayeuxEvent(Written(), std::move(channel), json, lazy));
}

BayeuxEvent::BayeuxEvent(Whole, std::string channel, std::string_view message)
    : channel_(std::move(channel)), dataAt_(message.size() - 1), lazy_(false)
{
    std::string text;
    text.reserve(message.size() + 2);
    text.append("[").append(message).append("]");
    frame_ = std::make_shared<const std::string>(std::move(text));
}

EventPtr BayeuxEvent::ofMessage(std::string channel, std::string_view message)
{
    return EventPtr(new BayeuxEvent(Whole(), std::move(channel), message));
}

ServiceRefusal::ServiceRefusal(unsigned code, const std::string& text) : std::runtime_error(text), code_(code) {}
ServiceRefusal::~ServiceRefusal() = default;

const BayeuxMessage& Publication::message() const
{
    if (!message_) {
        // An event keeps its text only; the depth is that of what was written.
        json::Limits limits;
        limits.bytes = event_->data().size();
        limits.depth = json::kMaxWriteDepth;
        limits.loneSurrogates = true;
        message_ = BayeuxMessage{event_->channel(), json::parse(event_->data(), limits), ext_, sender_, event_};
    }
    return *message_;
}

void FunctionReceiver::receive(const Publication& publication, Burst&)
{
    try {
        function_(publication.message());
    } catch (const std::exception& error) {
        common::log("connector.bayeux", common::LogLevel::error,
                    "A subscriber of " + publication.event()->channel() + " failed: " + error.what());
    }
}

} // namespace connector::bayeux
