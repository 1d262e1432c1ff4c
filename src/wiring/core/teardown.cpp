#include "connector/administration/AdministrationImpl.h"
#include "connector/bayeux/BayeuxHttpServiceProvider.h"
#include "connector/bayeux/BayeuxLongPollServiceProvider.h"
#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/bayeux/BayeuxServiceProviderImpl.h"
#include "connector/bayeux/BayeuxWebSocketServiceProvider.h"
#include "connector/common/TickManager.h"
#include "connector/common_services/ConnectorCommandProvider.h"
#include "connector/common_services/EchoServiceProvider.h"
#include "connector/common_services/LoggingCommandProvider.h"
#include "connector/common_services/LoggingServiceProvider.h"
#include "connector/configuration/ConfigurationCommandProvider.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/configuration/ConfigurationJsonSerialization.h"
#include "connector/configuration/ConfigurationServiceProviderImpl.h"
#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/desktop/DesktopServiceProvider.h"
#include "connector/desktop/DesktopWire.h"
#include "connector/hitchhiker/HitchhikerServiceProvider.h"
#include "connector/hitchhiker/HitchhikerWire.h"
#include "connector/http/HttpCommandProvider.h"
#include "connector/http/HttpConstantServiceProvider.h"
#include "connector/http/HttpLocalHostFilterServiceProvider.h"
#include "connector/http/HttpManagerJsonSerialization.h"
#include "connector/http/HttpManagerServiceProviderImpl.h"
#include "connector/http/HttpPathFilterServiceProvider.h"
#include "connector/http/HttpResponseHeaderServiceProvider.h"
#include "connector/http/HttpRouterImpl.h"
#include "connector/http/HttpRouterServiceProvider.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/http/HttpSessionServiceProvider.h"
#include "connector/http/PocoHttpClientServiceProvider.h"
#include "connector/http/StaticContentManagerJsonSerialization.h"
#include "connector/http/StaticContentManagerServiceProviderImpl.h"
#include "connector/http/StaticContentServiceImpl.h"
#include "connector/http/StaticContentServiceProvider.h"
#include "connector/http/VendraToolboxStaticContentServiceProvider.h"
#include "connector/information/ClientTypeServiceProvider.h"
#include "connector/information/InformationServiceProvider.h"
#include "connector/information/InformationWire.h"
#include "connector/interpreter/AsyncEvalService.h"
#include "connector/interpreter/FEvalSequenceServiceProvider.h"
#include "connector/interpreter/InterpreterServiceProvider.h"
#include "connector/interpreter/InterpreterWire.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonSerializerServiceProvider.h"
#include "connector/security/HttpNonceServiceProvider.h"
#include "connector/security/NonceGeneratorHttpServiceProvider.h"
#include "connector/security/NonceJsonSerialization.h"
#include "connector/security/NonceServiceProviderImpl.h"
#include "connector/shadow_files/MobileConfigurationServiceProvider.h"
#include "connector/shadow_files/ShadowServiceProvider.h"
#include "connector/shadow_files/ShadowWire.h"
#include "wiring/core/Drivers.h"
#include "wiring/core/Module.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector;

// In alphabetical order of the groups' names written without underscores, the registry's under "framework"; within a
// group the order is fixed and not alphabetical.
constexpr std::array<Step, 29> teardownGroups{{
    {"administration", release<administration::AdministrationImpl>},
    {"bayeux",
     release<bayeux::BayeuxHttpServiceProvider, bayeux::BayeuxLongPollServiceProvider, bayeux::BayeuxServerImpl,
             bayeux::BayeuxServiceProviderImpl, bayeux::BayeuxWebSocketServiceProvider>},
    {"common_services", release<common_services::ConnectorCommandProvider, common_services::EchoServiceProvider,
                                common_services::LoggingCommandProvider, common_services::LoggingServiceProvider>},
    {"configuration",
     release<configuration::ConfigurationCommandProvider, configuration::ConfigurationImpl,
             configuration::ConfigurationJsonSerialization, configuration::ConfigurationServiceProviderImpl>},
    {"container", release<container::ContainerHttpRouteProvider, container::v1::ContainerDispatcherImpl,
                          container::v1::ContainerDispatcherServiceProviderImpl,
                          container::v1::ContainerHttpServiceProvider, container::v1::ContainerJsonSerialization>},
    {"desktop", release<desktop::v1::DesktopJsonSerialization, desktop::v1::DesktopMessageMapProvider,
                        desktop::v1::DesktopServiceProviderImpl>},
    {"editor"},
    {"file"},
    {"file_sharing"},
    {"file_upload"},
    {"file_versioning"},
    {"registry", release<ConnectorImpl2>},
    {"gds"},
    {"hitchhiker", release<hitchhiker::v1::HitchhikerJsonSerialization, hitchhiker::v1::HitchhikerMessageMapProvider,
                           hitchhiker::v1::HitchhikerServiceImpl, hitchhiker::v1::HitchhikerServiceProviderImpl,
                           hitchhiker::v1::HitchhikerContainerServiceProvider>},
    {"http",
     release<http::HttpCommandProvider, http::HttpConstantServiceProvider, http::HttpPathFilterServiceProvider,
             http::HttpResponseHeaderServiceProvider, http::HttpRouterImpl, http::HttpRouterServiceProvider,
             http::HttpManagerJsonSerialization, http::HttpManagerServiceProviderImpl, http::HttpSessionManagerImpl,
             http::HttpSessionServiceProvider, http::VendraToolboxStaticContentServiceProvider,
             http::PocoHttpClientServiceProvider, http::StaticContentServiceProvider,
             http::StaticContentManagerServiceProviderImpl, http::HttpLocalHostFilterServiceProvider,
             http::StaticContentServiceImpl, http::StaticContentManagerJsonSerialization>},
    {"information",
     release<information::v1::ClientTypeServiceProvider, information::v1::InformationJsonSerialization,
             information::v1::InformationMessageMapProvider, information::v1::InformationServiceProviderImpl>},
    {"interpreter",
     release<interpreter::v1::AsyncEvalService, interpreter::v1::FEvalSequenceServiceProvider,
             interpreter::v1::InterpreterJsonSerialization, interpreter::v1::InterpreterMessageMapProvider,
             interpreter::v1::InterpreterServiceProviderImpl>},
    {"jni_cosg"},
    {"jni_json"},
    {"jni_message_service"},
    {"jni_native_bridge"},
    {"json",
     release<json::JsonSerializerImpl, json::JsonSerializerServiceProvider, json::JsonDeserializerServiceProvider>},
    {"login"},
    {"pairing_key"},
    {"rest_vendra"},
    {"security", release<security::v1::NonceGeneratorHelperImpl, security::v1::NonceGeneratorHttpServiceProvider,
                         security::NonceGeneratorHttpRouteProvider, security::v1::NonceServiceImpl,
                         security::v1::NonceServiceProviderImpl, security::v1::NonceJsonSerialization,
                         security::v1::HttpNonceServiceProvider>},
    {"session"},
    {"shadow_files",
     release<shadow_files::BehaviorsImpl, shadow_files::PathManagerImpl, shadow_files::v1::ShadowJsonSerialization,
             shadow_files::v1::ShadowMessageMapProvider, shadow_files::v1::ShadowServiceImpl,
             shadow_files::v1::ShadowServiceProviderImpl, shadow_files::v1::ShadowContainerServiceProvider,
             shadow_files::v1::MobileConfigurationMessageMapProvider, shadow_files::v1::MobileConfigurationServiceImpl,
             shadow_files::v1::MobileConfigurationContainerServiceProvider>},
    {"worker"},
}};

namespace {

void removeProviders()
{
    const auto& registry = slot<ConnectorImpl2>;
    if (!registry)
        return;
    for (const auto& name : registry->listServiceProviders()) {
        registry->removeServiceProvider(name);
        trace("remove", name);
    }
}

/// A framework that the host has ended took the registration with it.
void unregisterRegistry()
{
    if (registryRegistrationSlot.IsRegistered())
        registryRegistrationSlot.Unregister();
    registryRegistrationSlot = us::ServiceRegistration<Connector>();
}

} // namespace

void discardServices()
{
    removeProviders();
    unregisterRegistry();

    // The Java bridge's process-wide connector and converter are cleared here once that bridge is built.

    for (const auto& group : teardownGroups)
        if (group.run)
            group.run();

    common::TickManager::destructInstance();
}

void stopServicesManually()
{
    logLifecycle("Stopping services manually");
    discardServices();
    engineSlot.reset();
    logLifecycle("Done stopping services manually");
}

} // namespace wiring
