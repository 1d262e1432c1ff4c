#include "connector/bayeux/ScriptBus.h"

namespace connector::bayeux {

void ScriptBus::publish(const std::string& channel, const std::string& json, const GoOn& goOn)
{
    if (isReserved(channel))
        throw std::invalid_argument("\"" + channel + "\" is reserved: only the system publishes there.");
    tell(channel, json);
    server_->waitForRoom(channel, kPatience, goOn);
}

void ScriptBus::tell(const std::string& channel, const std::string& json) { server_->publishText(channel, json); }

bool ScriptBus::hasSubscribers(const std::string& channel) const { return server_->hasReceivers(channel); }

bool ScriptBus::isReserved(const std::string& channel) const { return server_->isReserved(channel); }

std::function<void()> ScriptBus::subscribe(const std::string& channel, Receiver receiver)
{
    auto registration = std::make_shared<BayeuxServer::Registration>(
        server_->subscribe(channel, [receiver = std::move(receiver)](const BayeuxMessage& message) {
            receiver(message.channel, std::string(message.event->data()));
        }));
    return [registration] { registration->reset(); };
}

} // namespace connector::bayeux
