#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/shadow_files/MobileConfigurationServiceProvider.h"
#include "connector/shadow_files/ShadowServiceProvider.h"
#include "connector/shadow_files/ShadowWire.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::shadow_files;
using connector::Address;
using connector::container::v1::ContainerDispatcherImpl;
using connector::json::JsonSerializerImpl;

void installShadowFilesServices()
{
    construct<BehaviorsImpl>();
    construct<PathManagerImpl>(engineSlot);
    construct<v1::ShadowServiceImpl>(slot<PathManagerImpl>, slot<BehaviorsImpl>);
    construct<v1::ShadowServiceProviderImpl>(slot<v1::ShadowServiceImpl>);
    construct<v1::ShadowContainerServiceProvider>(slot<v1::ShadowServiceImpl>);
    construct<v1::MobileConfigurationServiceImpl>(engineSlot);
    construct<v1::MobileConfigurationContainerServiceProvider>(slot<v1::MobileConfigurationServiceImpl>);
    construct<v1::ShadowJsonSerialization>(slot<JsonSerializerImpl>);
    construct<v1::ShadowMessageMapProvider>(slot<ContainerDispatcherImpl>,
                                            Address{"connector/v1/shadowFilesContainer"});
    construct<v1::MobileConfigurationMessageMapProvider>(slot<ContainerDispatcherImpl>,
                                                         Address{"connector/v1/mobileConfigurationContainer"});

    serve<v1::ShadowServiceProviderImpl>("connector/v1/shadowFiles");
    serve<v1::ShadowContainerServiceProvider>("connector/v1/shadowFilesContainer");
    serve<v1::MobileConfigurationContainerServiceProvider>("connector/v1/mobileConfigurationContainer");
}

} // namespace wiring
