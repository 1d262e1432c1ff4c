#include "connector/json/JsonSerializerImpl.h"

#include <mutex>
#include <utility>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"
#include "connector/json/Members.h"

namespace connector::json {

JsonSerializerImpl::JsonSerializerImpl() = default;
JsonSerializerImpl::~JsonSerializerImpl() = default;

void JsonSerializerImpl::registerType(const std::string& typeName, std::type_index type, Encoder encoder,
                                      Decoder decoder)
{
    if (typeName.empty())
        throw std::invalid_argument(std::string("A message type needs a name: ") + type.name());
    auto added = std::make_shared<const Type>(Type{typeName, type, std::move(encoder), std::move(decoder)});
    TypePtr replaced;
    TypePtr replacedOfClass;
    std::lock_guard lock(mutex_);
    auto& registration = byName_[typeName];
    ++registration.count;
    replaced = std::exchange(registration.type, added);
    if (replaced && replaced->index != type) {
        const auto old = byClass_.find(replaced->index);
        if (old != byClass_.end() && old->second == replaced)
            byClass_.erase(old);
    }
    replacedOfClass = std::exchange(byClass_[type], std::move(added));
}

void JsonSerializerImpl::deregisterType(const std::string& typeName)
{
    TypePtr removed;
    std::lock_guard lock(mutex_);
    const auto found = byName_.find(typeName);
    if (found == byName_.end() || --found->second.count > 0)
        return;
    removed = std::move(found->second.type);
    byName_.erase(found);
    const auto ofClass = byClass_.find(removed->index);
    if (ofClass != byClass_.end() && ofClass->second == removed)
        byClass_.erase(ofClass);
}

bool JsonSerializerImpl::knows(const std::string& typeName) const
{
    std::shared_lock lock(mutex_);
    return byName_.contains(typeName);
}

Poco::JSON::Object::Ptr JsonSerializerImpl::toJson(const Message& message) const
{
    TypePtr type;
    {
        std::shared_lock lock(mutex_);
        if (const auto found = byClass_.find(typeid(message)); found != byClass_.end())
            type = found->second;
    }
    if (!type)
        throw JsonError(std::string("no JSON form is known for messages of the class ") + typeid(message).name());
    if (!type->encode)
        throw JsonError("messages of the type \"" + type->name + "\" are only read");
    auto object = type->encode(message);
    if (!object)
        throw JsonError("the encoder of \"" + type->name + "\" made nothing");
    if (object->has("type"))
        throw JsonError("the encoder of \"" + type->name + "\" set \"type\" itself");
    object->set("type", type->name);
    return object;
}

std::unique_ptr<Message> JsonSerializerImpl::fromJson(const Poco::JSON::Object& object) const
{
    Members members(object);
    const auto name = members.requireString("type");
    members.allow("id");
    TypePtr type;
    {
        std::shared_lock lock(mutex_);
        if (const auto found = byName_.find(name); found != byName_.end())
            type = found->second.type;
    }
    if (!type)
        throw JsonError("type: unknown message type \"" + name + "\"");
    if (!type->decode)
        throw JsonError("type: messages of the type \"" + name + "\" are only written");
    auto message = type->decode(members);
    if (!message)
        throw JsonError("type: the decoder of \"" + name + "\" made nothing");
    members.refuseOthers();
    return message;
}

std::string JsonSerializerImpl::write(const Message& message) const { return json::write(toJson(message)); }

std::unique_ptr<Message> JsonSerializerImpl::read(std::string_view text) const
{
    return fromJson(*asObject(parse(text)));
}

std::shared_ptr<JsonSerializer> JsonSerializerImpl::getPtr() { return shared_from_this(); }

} // namespace connector::json
