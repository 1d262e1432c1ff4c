#include "connector/bayeux/ScriptBus.h"

#include "connector/json/JsonText.h"

namespace connector::bayeux {

void ScriptBus::publish(const std::string& channel, const std::string& json, const GoOn& goOn)
{
    if (isReserved(channel))
        throw std::invalid_argument("\"" + channel + "\" is reserved: only the system publishes there.");
    tell(channel, json);
    server_->waitForRoom(channel, kPatience, goOn);
}

void ScriptBus::tell(const std::string& channel, const std::string& json)
{
    server_->publish(channel, json::parse(json));
}

bool ScriptBus::hasSubscribers(const std::string& channel) const { return server_->hasReceivers(channel); }

bool ScriptBus::isReserved(const std::string& channel) const { return server_->isReserved(channel); }

std::function<void()> ScriptBus::subscribe(const std::string& channel, Receiver receiver)
{
    auto registration = std::make_shared<BayeuxServer::Registration>(
        server_->subscribe(channel, [receiver = std::move(receiver)](const BayeuxMessage& message) {
            receiver(message.channel, json::write(message.data));
        }));
    return [registration] { registration->reset(); };
}

} // namespace connector::bayeux
