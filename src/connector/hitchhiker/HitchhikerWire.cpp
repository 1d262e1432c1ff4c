#include "connector/hitchhiker/HitchhikerWire.h"

#include "connector/hitchhiker/HitchhikerMessages.h"
#include "connector/json/Members.h"

namespace connector::hitchhiker::v1 {
namespace {

using json::Object;

std::unique_ptr<QueueHitchhiker> decodeQueue(const json::JsonSerializer& serializer, json::Members& members)
{
    auto message = std::make_unique<QueueHitchhiker>();
    message->session = members.optionalString("session");
    const bool all = members.optionalBool("allSessions", false);
    if (all != message->session.empty())
        throw json::JsonError("session: expected a session's id, or allSessions to be true, and not both");
    message->message = members.requireObject("message");
    json::within(std::string("message"), [&] {
        const auto type = json::requireString(*message->message, "type");
        if (!serializer.knows(type))
            json::within(std::string("type"), [&] { throw json::JsonError("unknown message type \"" + type + "\""); });
    });
    return message;
}

Object::Ptr encodeQueued(const QueueHitchhikerResponse& response)
{
    auto object = json::makeObject();
    object->set("sessions", static_cast<Poco::UInt64>(response.sessions));
    return object;
}

Object::Ptr encodeHitchhiker(const Hitchhiker& hitchhiker)
{
    auto object = json::makeObject();
    object->set("message", hitchhiker.message);
    if (hitchhiker.dropped > 0)
        object->set("dropped", static_cast<Poco::UInt64>(hitchhiker.dropped));
    return object;
}

} // namespace

HitchhikerJsonSerialization::HitchhikerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    // The serializer owns these functions: a strong reference would keep it alive for ever.
    const auto* types = this->serializer().get();
    add<QueueHitchhiker>("QueueHitchhiker", nullptr,
                         [types](json::Members& members) { return decodeQueue(*types, members); });
    add<QueueHitchhikerResponse>("QueueHitchhikerResponse", encodeQueued, nullptr);
    add<Hitchhiker>("Hitchhiker", encodeHitchhiker, nullptr);
}

HitchhikerMessageMapProvider::HitchhikerMessageMapProvider(
    std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address address)
    : MessageMapProvider(std::move(dispatcher))
{
    mapContainer("QueueHitchhiker", address);
    passAfter(address);
}

} // namespace connector::hitchhiker::v1
