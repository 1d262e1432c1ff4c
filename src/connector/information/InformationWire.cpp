#include "connector/information/InformationWire.h"

#include "connector/information/InformationMessages.h"
#include "connector/json/Members.h"

namespace connector::information::v1 {
namespace {

using json::Object;

const char* nameOf(Context::Transport transport)
{
    switch (transport) {
    case Context::Transport::http:
        return "http";
    case Context::Transport::webSocket:
        return "webSocket";
    case Context::Transport::process:
        break;
    }
    return "process";
}

Object::Ptr encodeClient(const GetCurrentClientPropertiesResponse& response)
{
    auto object = json::makeObject();
    object->set("clientType", response.clientType);
    object->set("sessionId", response.sessionId);
    object->set("transport", std::string(nameOf(response.transport)));
    auto properties = json::makeObject();
    for (const auto& [name, value] : response.properties)
        properties->set(name, value);
    object->set("properties", properties);
    return object;
}

template <class Response>
Object::Ptr encodePath(const Response& response)
{
    auto object = json::makeObject();
    object->set("path", response.path);
    return object;
}

Object::Ptr encodeServices(const ServiceRegistryRequestResponse& response)
{
    json::Array::Ptr services = new json::Array;
    for (const auto& [name, running] : response.services) {
        auto service = json::makeObject();
        service->set("name", name);
        service->set("running", running);
        services->add(service);
    }
    auto object = json::makeObject();
    object->set("services", services);
    return object;
}

Object::Ptr encodeFeatures(const EnabledFeaturesResponse& response)
{
    json::Array::Ptr features = new json::Array;
    for (const auto& [name, enabled] : response.features) {
        auto feature = json::makeObject();
        feature->set("name", name);
        feature->set("enabled", enabled);
        features->add(feature);
    }
    auto object = json::makeObject();
    object->set("features", features);
    return object;
}

std::unique_ptr<SetUserHomeDir> decodeSetHome(json::Members& members)
{
    auto message = std::make_unique<SetUserHomeDir>();
    message->path = members.requireString("path");
    return message;
}

template <class M>
std::unique_ptr<M> decodeEmpty(json::Members&)
{
    return std::make_unique<M>();
}

} // namespace

InformationJsonSerialization::InformationJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<GetCurrentClientProperties>("GetCurrentClientProperties", nullptr, decodeEmpty<GetCurrentClientProperties>);
    add<GetCurrentClientPropertiesResponse>("GetCurrentClientPropertiesResponse", encodeClient, nullptr);
    add<GetUserHomeDir>("GetUserHomeDir", nullptr, decodeEmpty<GetUserHomeDir>);
    add<GetUserHomeDirResponse>("GetUserHomeDirResponse", encodePath<GetUserHomeDirResponse>, nullptr);
    add<SetUserHomeDir>("SetUserHomeDir", nullptr, decodeSetHome);
    add<SetUserHomeDirResponse>("SetUserHomeDirResponse", encodePath<SetUserHomeDirResponse>, nullptr);
    add<ServiceRegistryRequest>("ServiceRegistryRequest", nullptr, decodeEmpty<ServiceRegistryRequest>);
    add<ServiceRegistryRequestResponse>("ServiceRegistryRequestResponse", encodeServices, nullptr);
    add<EnabledFeatures>("EnabledFeatures", nullptr, decodeEmpty<EnabledFeatures>);
    add<EnabledFeaturesResponse>("EnabledFeaturesResponse", encodeFeatures, nullptr);
}

InformationMessageMapProvider::InformationMessageMapProvider(
    std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address address)
    : MessageMapProvider(std::move(dispatcher))
{
    for (const char* type : {"GetCurrentClientProperties", "GetUserHomeDir", "SetUserHomeDir", "ServiceRegistryRequest",
                             "EnabledFeatures"})
        map(type, address);
}

} // namespace connector::information::v1
