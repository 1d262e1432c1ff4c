// The body of a POST to the container route, through the real dispatcher and providers of all families to an
// interpreter that echoes. Whatever it holds, it is refused with 400 or read; what was read is answered message by
// message, and the answer is JSON again, in the order of the request and with its ids.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <boost/smart_ptr/make_shared.hpp>

#include "EchoEngine.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/desktop/DesktopServiceProvider.h"
#include "connector/desktop/DesktopWire.h"
#include "connector/hitchhiker/HitchhikerServiceProvider.h"
#include "connector/hitchhiker/HitchhikerWire.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/information/InformationServiceProvider.h"
#include "connector/information/InformationWire.h"
#include "connector/interpreter/FEvalSequenceServiceProvider.h"
#include "connector/interpreter/InterpreterServiceProvider.h"
#include "connector/interpreter/InterpreterWire.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonText.h"
#include "connector/shadow_files/MobileConfigurationServiceProvider.h"
#include "connector/shadow_files/ShadowServiceProvider.h"
#include "connector/shadow_files/ShadowWire.h"

using namespace connector;

namespace {

using MessagePtr = std::unique_ptr<Message>;

void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

/// Notes what a request asked for, and hands it on.
class Note final : public container::v1::ContainerServiceProvider
{
public:
    MessageFuture handleRequest(std::unique_ptr<container::v1::ContainerRequest>&& request, Address&& rest,
                                std::shared_ptr<Context>&& context) override
    {
        require(request->entries.size() <= container::v1::ContainerJsonSerialization::kMaxMessages,
                "too many messages");
        ids.clear();
        for (const auto& entry : request->entries) {
            require(!entry.message == static_cast<bool>(entry.failure), "an entry is neither read nor failed, or both");
            ids.push_back(entry.id);
        }
        return context->connector()->handle(std::move(request), std::move(rest), std::shared_ptr<Context>(context));
    }

    std::vector<std::string> ids;
};

/// The families that containers reach, wired as in the module.
struct Route
{
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("fuzz");
    boost::shared_ptr<rqe::RQE> engine = boost::make_shared<EchoEngine>();
    std::shared_ptr<json::JsonSerializerImpl> serializer = std::make_shared<json::JsonSerializerImpl>();
    std::shared_ptr<container::v1::ContainerDispatcherImpl> dispatcher =
        std::make_shared<container::v1::ContainerDispatcherImpl>();
    std::shared_ptr<http::HttpSessionManagerImpl> sessions = std::make_shared<http::HttpSessionManagerImpl>();
    std::shared_ptr<hitchhiker::v1::HitchhikerServiceImpl> hitchhikers =
        std::make_shared<hitchhiker::v1::HitchhikerServiceImpl>();
    std::shared_ptr<shadow_files::v1::ShadowServiceImpl> shadows =
        std::make_shared<shadow_files::v1::ShadowServiceImpl>(std::make_shared<shadow_files::PathManagerImpl>(engine),
                                                              std::make_shared<shadow_files::BehaviorsImpl>());
    std::shared_ptr<Note> note = std::make_shared<Note>();
    std::shared_ptr<container::v1::ContainerHttpServiceProvider> provider =
        std::make_shared<container::v1::ContainerHttpServiceProvider>(serializer);

    container::v1::ContainerJsonSerialization containerJson{serializer};
    interpreter::v1::InterpreterJsonSerialization interpreterJson{serializer};
    desktop::v1::DesktopJsonSerialization desktopJson{serializer};
    information::v1::InformationJsonSerialization informationJson{serializer};
    hitchhiker::v1::HitchhikerJsonSerialization hitchhikerJson{serializer};
    shadow_files::v1::ShadowJsonSerialization shadowJson{serializer};

    interpreter::v1::InterpreterMessageMapProvider interpreterMap{dispatcher, Address{"interpreter"},
                                                                  Address{"feval", "interpreter"}};
    desktop::v1::DesktopMessageMapProvider desktopMap{dispatcher, Address{"desktop"}};
    information::v1::InformationMessageMapProvider informationMap{dispatcher, Address{"information"}};
    hitchhiker::v1::HitchhikerMessageMapProvider hitchhikerMap{dispatcher, Address{"hitchhiker"}};
    shadow_files::v1::ShadowMessageMapProvider shadowMap{dispatcher, Address{"shadow"}};
    shadow_files::v1::MobileConfigurationMessageMapProvider mobileMap{dispatcher, Address{"mobile"}};

    Route()
    {
        const auto add = [this](const char* name, std::shared_ptr<ServiceProvider> served) {
            connector->addServiceProvider(name, std::move(served));
        };
        add("note", note);
        add("dispatcher", std::make_shared<container::v1::ContainerDispatcherServiceProviderImpl>(dispatcher));
        add("interpreter", std::make_shared<interpreter::v1::InterpreterServiceProviderImpl>(
                               std::make_shared<configuration::ConfigurationImpl>(), engine));
        add("feval", std::make_shared<interpreter::v1::FEvalSequenceServiceProvider>());
        add("desktop", std::make_shared<desktop::v1::DesktopServiceProviderImpl>(engine));
        add("information", std::make_shared<information::v1::InformationServiceProviderImpl>(sessions, engine));
        add("hitchhiker", std::make_shared<hitchhiker::v1::HitchhikerContainerServiceProvider>(hitchhikers));
        add("shadow", std::make_shared<shadow_files::v1::ShadowContainerServiceProvider>(shadows));
        add("connector/v1/shadowFiles", std::make_shared<shadow_files::v1::ShadowServiceProviderImpl>(shadows));
        add("mobile", std::make_shared<shadow_files::v1::MobileConfigurationContainerServiceProvider>(
                          std::make_shared<shadow_files::v1::MobileConfigurationServiceImpl>(engine)));
    }

    MessagePtr post(std::string body)
    {
        auto request = std::make_unique<http::HttpRequest>();
        request->method = "POST";
        request->path = "/messageservice/container";
        request->headers.add("Content-Type", "application/json");
        request->body = std::move(body);
        const auto context = connector->newContext();
        auto answer =
            provider->handleHttp(std::move(request), Address{"note", "dispatcher"}, std::shared_ptr<Context>(context));
        // Who waits for a change that nobody makes is told so when it goes away.
        if (!answer.isReady())
            context->cancellation()->cancel();
        require(answer.isReady(), "a message is never answered");
        return answer.get();
    }
};

void checkAnswer(const std::string& body, const std::vector<std::string>& ids)
{
    json::Limits limits; // an answer describes what a request may write shorter
    limits.bytes = limits.members = std::size_t{1} << 30;
    limits.depth = json::kMaxWriteDepth;
    const auto object = json::asObject(json::parse(body, limits));
    if (json::requireString(*object, "type") != "ContainerResponse") {
        require(ids.size() == 1 && json::requireString(*object, "id") == ids.front(), "a bare answer has another id");
        return;
    }
    const auto messages = json::requireArray(*object, "messages");
    require(messages->size() == ids.size(), "not every message is answered");
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const auto message = json::asObject(messages->get(static_cast<unsigned>(i)));
        require(json::requireString(*message, "id") == ids[i], "an answer has another id than its message");
        require(!json::requireString(*message, "type").empty(), "an answer without a type");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Route route;
    route.note->ids.clear();
    const auto message = route.post({reinterpret_cast<const char*>(data), size});
    const auto* answer = dynamic_cast<http::HttpResponse*>(message.get());
    require(answer && (answer->status == 200 || answer->status == 400), "neither 200 nor 400");
    if (answer->status == 200)
        checkAnswer(answer->body, route.note->ids);
    else
        require(!answer->body.empty() && answer->body.size() < 2 * size + 1000, "a refusal is long, or says nothing");
    return 0;
}
