#include "connector/shadow_files/ShadowWire.h"

#include "connector/json/Members.h"
#include "connector/shadow_files/MobileConfigurationServiceProvider.h"
#include "connector/shadow_files/ShadowServiceProvider.h"

namespace connector::shadow_files::v1 {
namespace {

using json::Object;

std::unique_ptr<LoadClientTypeFile> decodeLoad(json::Members& members)
{
    auto message = std::make_unique<LoadClientTypeFile>();
    message->path = members.requireString("path");
    return message;
}

Object::Ptr encodeLoaded(const LoadClientTypeFileResponse& response)
{
    std::vector<std::string> behaviors;
    for (const auto& [name, text] : response.file.behaviors)
        behaviors.push_back(name);
    auto object = json::makeObject();
    object->set("clientType", response.file.clientType);
    object->set("folders", json::makeArray(response.file.folders));
    object->set("behaviors", json::makeArray(behaviors));
    return object;
}

std::unique_ptr<GetBehavior> decodeGetBehavior(json::Members& members)
{
    auto message = std::make_unique<GetBehavior>();
    message->name = members.requireString("name");
    message->clientType = members.optionalString("clientType");
    return message;
}

Object::Ptr encodeBehavior(const GetBehaviorResponse& response)
{
    auto object = json::makeObject();
    object->set("text", response.text ? Poco::Dynamic::Var(*response.text) : Poco::Dynamic::Var());
    return object;
}

template <class M>
std::unique_ptr<M> decodeColor(json::Members& members)
{
    auto message = std::make_unique<M>();
    message->color = members.requireString("color");
    return message;
}

template <class Request>
Object::Ptr encodeApplied(const MobileConfigurationResponse<Request>& response)
{
    auto object = json::makeObject();
    object->set("applied", response.applied);
    return object;
}

} // namespace

ShadowJsonSerialization::ShadowJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<LoadClientTypeFile>("LoadClientTypeFile", nullptr, decodeLoad);
    add<LoadClientTypeFileResponse>("LoadClientTypeFileResponse", encodeLoaded, nullptr);
    add<GetBehavior>("GetBehavior", nullptr, decodeGetBehavior);
    add<GetBehaviorResponse>("GetBehaviorResponse", encodeBehavior, nullptr);

    add<SetBgColor>("SetBgColor", nullptr, decodeColor<SetBgColor>);
    add<ResetBgColor>("ResetBgColor", nullptr, [](json::Members&) { return std::make_unique<ResetBgColor>(); });
    add<ChangeDefaultFigureColor>("ChangeDefaultFigureColor", nullptr, decodeColor<ChangeDefaultFigureColor>);
    add<MobileConfigurationResponse<SetBgColor>>("SetBgColorResponse", encodeApplied<SetBgColor>, nullptr);
    add<MobileConfigurationResponse<ResetBgColor>>("ResetBgColorResponse", encodeApplied<ResetBgColor>, nullptr);
    add<MobileConfigurationResponse<ChangeDefaultFigureColor>>("ChangeDefaultFigureColorResponse",
                                                               encodeApplied<ChangeDefaultFigureColor>, nullptr);
}

ShadowMessageMapProvider::ShadowMessageMapProvider(std::shared_ptr<container::v1::ContainerDispatcher> dispatcher,
                                                   Address address)
    : MessageMapProvider(std::move(dispatcher))
{
    auto through = address.parts();
    through.emplace_back("connector/v1/shadowFiles");
    for (const char* type : {"LoadClientTypeFile", "GetBehavior"})
        map(type, Address(through));
    passBefore(address);
    passAfter(address);
}

MobileConfigurationMessageMapProvider::MobileConfigurationMessageMapProvider(
    std::shared_ptr<container::v1::ContainerDispatcher> dispatcher, Address address)
    : MessageMapProvider(std::move(dispatcher))
{
    for (const char* type : {"SetBgColor", "ResetBgColor", "ChangeDefaultFigureColor"})
        map(type, address);
}

} // namespace connector::shadow_files::v1
