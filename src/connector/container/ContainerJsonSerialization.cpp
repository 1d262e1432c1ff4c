#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/common/LogRules.h"
#include "connector/common_services/EchoServiceProvider.h"
#include "connector/common_services/LogRecord.h"
#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/container/SequenceContainer.h"
#include "connector/json/Members.h"

namespace connector::container::v1 {
namespace {

using common_services::Echo;
using common_services::LogRecord;
using common_services::LogRecordResponse;
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

std::vector<ContainerRequest::Entry> decodeEntries(const json::JsonSerializer& serializer, json::Members& members)
{
    const auto messages = members.requireArray("messages");
    if (messages->size() > ContainerJsonSerialization::kMaxMessages)
        throw json::JsonError("messages: at most " + std::to_string(ContainerJsonSerialization::kMaxMessages) +
                              " in one container, not " + std::to_string(messages->size()) + ".");
    std::vector<ContainerRequest::Entry> entries;
    for (std::size_t i = 0; i < messages->size(); ++i)
        entries.push_back(decodeEntry(serializer, messages->get(static_cast<unsigned>(i)), i));
    return entries;
}

std::unique_ptr<ContainerRequest> decodeRequest(const json::JsonSerializer& serializer, json::Members& members)
{
    auto request = std::make_unique<ContainerRequest>();
    request->id = members.optionalString("id");
    request->clientType = members.optionalString("clientType");
    request->entries = decodeEntries(serializer, members);
    return request;
}

std::unique_ptr<SequenceContainer> decodeSequence(const json::JsonSerializer& serializer, json::Members& members)
{
    auto sequence = std::make_unique<SequenceContainer>();
    sequence->stopOnFailure = members.optionalBool("stopOnFailure", false);
    sequence->entries = decodeEntries(serializer, members);
    return sequence;
}

Poco::JSON::Array::Ptr encodeEntries(const json::JsonSerializer& serializer,
                                     const std::vector<ContainerResponse::Entry>& entries)
{
    Poco::JSON::Array::Ptr messages = new Poco::JSON::Array;
    for (const auto& entry : entries) {
        auto message = serializer.toJson(*entry.message);
        message->set("id", entry.id);
        messages->add(message);
    }
    return messages;
}

Object::Ptr encodeResponse(const json::JsonSerializer& serializer, const ContainerResponse& response)
{
    Object::Ptr object = new Object;
    object->set("id", response.id);
    object->set("messages", encodeEntries(serializer, response.entries));
    return object;
}

Object::Ptr encodeSequence(const json::JsonSerializer& serializer, const SequenceContainerResponse& response)
{
    Object::Ptr object = new Object;
    object->set("messages", encodeEntries(serializer, response.entries));
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

std::unique_ptr<Echo> decodeEcho(json::Members& members)
{
    return std::make_unique<Echo>(members.requireValue("data"));
}

Object::Ptr encodeEcho(const Echo& echo)
{
    Object::Ptr object = new Object;
    object->set("data", echo.data);
    return object;
}

std::unique_ptr<LogRecord> decodeLogRecord(json::Members& members)
{
    const auto level = members.optionalString("level", "info");
    auto text = members.requireString("text");
    auto source = members.optionalString("source");
    return json::within(std::string("level"), [&] {
        const auto known = common::levelNamed(level);
        if (!known)
            throw json::JsonError("expected off, error, warning, info, debug or trace but found \"" + level + "\"");
        return std::make_unique<LogRecord>(*known, std::move(text), std::move(source));
    });
}

Object::Ptr encodeLogRecordResponse(const LogRecordResponse& response)
{
    Object::Ptr object = new Object;
    object->set("written", response.written);
    return object;
}

} // namespace

ContainerJsonSerialization::ContainerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    // The serializer owns these functions: a strong reference would keep it alive for ever.
    const auto* types = this->serializer().get();
    add<ContainerRequest>("ContainerRequest", nullptr,
                          [types](json::Members& members) { return decodeRequest(*types, members); });
    add<ContainerResponse>(
        "ContainerResponse", [types](const ContainerResponse& response) { return encodeResponse(*types, response); },
        nullptr);
    add<SequenceContainer>("SequenceContainer", nullptr,
                           [types](json::Members& members) { return decodeSequence(*types, members); });
    add<SequenceContainerResponse>(
        "SequenceContainerResponse",
        [types](const SequenceContainerResponse& response) { return encodeSequence(*types, response); }, nullptr);
    add<Fault>("Fault", encodeFault, nullptr);
    add<Echo>("Echo", encodeEcho, decodeEcho);
    add<LogRecord>("LogRecord", nullptr, decodeLogRecord);
    add<LogRecordResponse>("LogRecordResponse", encodeLogRecordResponse, nullptr);
}

} // namespace connector::container::v1
