#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/desktop/DesktopServiceProvider.h"
#include "connector/desktop/DesktopWire.h"
#include "connector/json/JsonSerializerImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::desktop::v1;
using connector::Address;
using connector::container::v1::ContainerDispatcherImpl;
using connector::json::JsonSerializerImpl;

void installDesktopServices()
{
    construct<DesktopServiceProviderImpl>(engineSlot);
    construct<DesktopJsonSerialization>(slot<JsonSerializerImpl>);
    construct<DesktopMessageMapProvider>(slot<ContainerDispatcherImpl>, Address{"connector/v1/desktop"});

    serve<DesktopServiceProviderImpl>("connector/v1/desktop");
}

} // namespace wiring
