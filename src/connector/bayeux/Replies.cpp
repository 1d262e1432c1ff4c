#include "connector/bayeux/Replies.h"

namespace connector::bayeux {

namespace {

constexpr std::size_t kMaxPartBytes = 128; ///< of an error
constexpr std::size_t kUsualBytes = 160;   ///< of a reply
/// A connect that is not held comes again that late, so that tabs of one browser do not poll without a pause.
constexpr std::chrono::milliseconds kMultipleClientsInterval(2'000);

/// Clients split the text of an error at its colons.
std::string cleaned(std::string_view part)
{
    std::string clean(part.substr(0, kMaxPartBytes));
    for (char& byte : clean) {
        if (byte == ':' || static_cast<unsigned char>(byte) < 0x20)
            byte = '_';
    }
    return clean;
}

std::string advice(std::string_view reconnect, std::chrono::milliseconds interval, std::chrono::milliseconds timeout)
{
    std::string text = R"({"reconnect":")";
    text.append(reconnect).append(R"(","interval":)").append(std::to_string(interval.count()));
    text.append(R"(,"timeout":)").append(std::to_string(timeout.count()));
    return text;
}

} // namespace

std::string_view idOf(const json::RawValue& message)
{
    const auto id = message.member("id");
    return id.empty() || std::string_view("{[tfn").find(id.front()) != std::string_view::npos ? "" : id;
}

std::string Refusal::errorText() const { return std::to_string(code) + ':' + cleaned(argument) + ':' + cleaned(text); }

Reply::Reply(std::string_view channel, bool successful)
{
    text_.reserve(kUsualBytes);
    text_ += '{';
    if (!channel.empty())
        addText("channel", channel);
    add("successful", successful ? "true" : "false");
}

Reply& Reply::addText(std::string_view name, std::string_view text)
{
    json::appendString(begin(name), text);
    return *this;
}

Reply& Reply::add(std::string_view name, std::string_view json)
{
    begin(name).append(json);
    return *this;
}

std::string& Reply::begin(std::string_view name)
{
    if (text_.size() > 1)
        text_ += ',';
    return text_.append(1, '"').append(name).append("\":");
}

Reply& Reply::addId(std::string_view id) { return id.empty() ? *this : add("id", id); }

Reply& Reply::addError(const Refusal& refusal) { return addText("error", refusal.errorText()); }

std::string Reply::take()
{
    text_ += '}';
    return std::move(text_);
}

std::string adviceText(Reconnect reconnect, const BayeuxLimits& limits)
{
    const char* word = reconnect == Reconnect::retry ? "retry" : reconnect == Reconnect::none ? "none" : "handshake";
    return advice(word, limits.interval, limits.timeout) + '}';
}

std::string multipleClientsAdvice(const BayeuxLimits& limits)
{
    const auto interval = std::max(limits.interval, kMultipleClientsInterval);
    return advice("retry", interval, limits.timeout) + R"(,"multiple-clients":true})";
}

} // namespace connector::bayeux
