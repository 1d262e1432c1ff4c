#include "connector/configuration/ConfigurationJsonSerialization.h"

#include <type_traits>
#include <utility>

#include "connector/configuration/ConfigurationServiceProvider.h"
#include "connector/json/JsonFields.h"

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

Value requireSettingValue(const Object& object)
{
    const auto value = json::requireValue(object, "value");
    if (value.type() == typeid(std::string))
        return value.extract<std::string>();
    if (value.type() == typeid(bool))
        return value.extract<bool>();
    if (object.isArray("value"))
        return json::requireStrings(object, "value");
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

std::unique_ptr<GetConfiguration> decodeGet(const Object& object)
{
    return std::make_unique<GetConfiguration>(json::optionalString(object, "name"));
}

Object::Ptr encodeSet(const SetConfiguration& message)
{
    auto object = json::makeObject();
    object->set("name", message.name);
    object->set("value", valueToJson(message.value));
    return object;
}

std::unique_ptr<SetConfiguration> decodeSet(const Object& object)
{
    return std::make_unique<SetConfiguration>(json::requireString(object, "name"), requireSettingValue(object));
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

std::unique_ptr<ConfigurationValues> decodeValues(const Object& object)
{
    std::vector<Setting> settings;
    for (const auto& value : *json::requireArray(object, "values")) {
        json::within(std::string("values"), [&] {
            json::within(settings.size(), [&] {
                const auto setting = json::asObject(value);
                settings.push_back({json::requireString(*setting, "name"), requireSettingValue(*setting),
                                    json::requireString(*setting, "source"),
                                    json::optionalString(*setting, "description")});
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
