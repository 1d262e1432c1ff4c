#include "connector/bayeux/ScriptBus.h"

#include "connector/json/JsonText.h"

namespace connector::bayeux {

void ScriptBus::publish(const std::string& channel, const std::string& json)
{
    server_->publish(channel, json::parse(json));
    server_->waitForRoom(channel, kPatience);
}

std::function<void()> ScriptBus::subscribe(const std::string& channel, Receiver receiver)
{
    auto registration = std::make_shared<BayeuxServer::Registration>(
        server_->subscribe(channel, [receiver = std::move(receiver)](const BayeuxMessage& message) {
            receiver(message.channel, json::write(message.data));
        }));
    return [registration] { registration->reset(); };
}

} // namespace connector::bayeux
