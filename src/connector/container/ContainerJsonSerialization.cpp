#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/container/ContainerMessages.h"
#include "connector/json/JsonFields.h"

namespace connector::container::v1 {
namespace {

using Poco::JSON::Object;

ContainerRequest::Entry decodeEntry(const json::JsonSerializer& serializer, const Poco::Dynamic::Var& value,
                                    std::size_t position)
{
    ContainerRequest::Entry entry;
    try {
        if (value.type() != typeid(Object::Ptr))
            throw json::JsonError("messages[" + std::to_string(position) + "] is not an object.");
        const auto& object = *value.extract<Object::Ptr>();
        entry.id = json::optionalString(object, "id", {});
        entry.type = json::requireString(object, "type");
        if (!serializer.knows(entry.type))
            throw ServiceFault("unknownType", "No service takes messages of type \"" + entry.type + "\".");
        entry.message = serializer.fromJson(object);
    } catch (const std::exception&) {
        entry.failure = std::current_exception();
    }
    return entry;
}

std::unique_ptr<ContainerRequest> decodeRequest(const json::JsonSerializer& serializer, const Object& object)
{
    auto request = std::make_unique<ContainerRequest>();
    request->id = json::optionalString(object, "id", {});
    request->clientType = json::optionalString(object, "clientType", {});
    const auto messages = json::requireArray(object, "messages");
    if (messages->size() > ContainerJsonSerialization::kMaxMessages)
        throw json::JsonError("messages: at most " + std::to_string(ContainerJsonSerialization::kMaxMessages) +
                              " in one container, not " + std::to_string(messages->size()) + ".");
    for (std::size_t i = 0; i < messages->size(); ++i)
        request->entries.push_back(decodeEntry(serializer, messages->get(static_cast<unsigned>(i)), i));
    return request;
}

Object::Ptr encodeResponse(const json::JsonSerializer& serializer, const ContainerResponse& response)
{
    Object::Ptr object = new Object;
    object->set("id", response.id);
    Poco::JSON::Array::Ptr messages = new Poco::JSON::Array;
    for (const auto& entry : response.entries) {
        auto message = serializer.toJson(*entry.message);
        message->set("id", entry.id);
        messages->add(message);
    }
    object->set("messages", messages);
    return object;
}

Object::Ptr encodeFault(const Fault& fault)
{
    Object::Ptr object = new Object;
    object->set("code", fault.code);
    object->set("message", fault.message);
    for (const auto& [name, text] : fault.details)
        object->set(name, text);
    return object;
}

} // namespace

ContainerJsonSerialization::ContainerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    // The serializer owns these functions: a strong reference would keep it alive for ever.
    const auto* types = this->serializer().get();
    add<ContainerRequest>("ContainerRequest", nullptr,
                          [types](const Object& object) { return decodeRequest(*types, object); });
    add<ContainerResponse>(
        "ContainerResponse", [types](const ContainerResponse& response) { return encodeResponse(*types, response); },
        nullptr);
    add<Fault>("Fault", encodeFault, nullptr);
}

} // namespace connector::container::v1
