#include "connector/configuration/ConfigurationJsonSerialization.h"

#include <type_traits>
#include <utility>

#include "connector/configuration/ConfigurationServiceProvider.h"
#include "connector/json/Members.h"

namespace connector::configuration {

namespace {

using json::Object;
using json::Var;

Var valueToJson(const Value& value)
{
    return std::visit(
        [](const auto& held) -> Var {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::vector<std::string>>)
                return json::makeArray(held);
            else if constexpr (std::is_same_v<Held, std::int64_t>)
                return static_cast<Poco::Int64>(held);
            else
                return held;
        },
        value);
}

Value requireSettingValue(json::Members& members)
{
    const auto value = members.requireValue("value");
    if (value.type() == typeid(std::string))
        return value.extract<std::string>();
    if (value.type() == typeid(bool))
        return value.extract<bool>();
    if (value.type() == typeid(json::Array::Ptr))
        return members.requireStrings("value");
    return json::within(std::string("value"), [&]() -> Value {
        if (!value.isEmpty() && value.isInteger())
            return json::asInteger(value);
        if (!value.isEmpty() && value.isNumeric())
            return json::asDouble(value);
        throw json::JsonError("expected a string, a number, true or false or an array of strings but found " +
                              json::describe(value));
    });
}

Object::Ptr encodeGet(const GetConfiguration& message)
{
    auto object = json::makeObject();
    object->set("name", message.name);
    return object;
}

std::unique_ptr<GetConfiguration> decodeGet(json::Members& members)
{
    return std::make_unique<GetConfiguration>(members.optionalString("name"));
}

Object::Ptr encodeSet(const SetConfiguration& message)
{
    auto object = json::makeObject();
    object->set("name", message.name);
    object->set("value", valueToJson(message.value));
    return object;
}

std::unique_ptr<SetConfiguration> decodeSet(json::Members& members)
{
    return std::make_unique<SetConfiguration>(members.requireString("name"), requireSettingValue(members));
}

Object::Ptr encodeValues(const ConfigurationValues& message)
{
    json::Array::Ptr values = new json::Array;
    for (const auto& setting : message.settings) {
        auto value = json::makeObject();
        value->set("name", setting.name);
        value->set("value", valueToJson(setting.value));
        value->set("source", setting.source);
        value->set("description", setting.description);
        values->add(value);
    }
    auto object = json::makeObject();
    object->set("values", values);
    return object;
}

std::unique_ptr<ConfigurationValues> decodeValues(json::Members& members)
{
    std::vector<Setting> settings;
    for (const auto& value : *members.requireArray("values")) {
        json::within(std::string("values"), [&] {
            json::within(settings.size(), [&] {
                const auto object = json::asObject(value);
                json::Members setting(*object);
                settings.push_back({setting.requireString("name"), requireSettingValue(setting),
                                    setting.requireString("source"), setting.optionalString("description")});
                setting.refuseOthers();
            });
        });
    }
    return std::make_unique<ConfigurationValues>(std::move(settings));
}

} // namespace

ConfigurationJsonSerialization::ConfigurationJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<GetConfiguration>("GetConfiguration", encodeGet, decodeGet);
    add<SetConfiguration>("SetConfiguration", encodeSet, decodeSet);
    add<ConfigurationValues>("ConfigurationValues", encodeValues, decodeValues);
}

ConfigurationJsonSerialization::~ConfigurationJsonSerialization() = default;

} // namespace connector::configuration
