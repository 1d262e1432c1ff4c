#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/hitchhiker/HitchhikerServiceProvider.h"
#include "connector/hitchhiker/HitchhikerWire.h"
#include "connector/json/JsonSerializerImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::hitchhiker::v1;
using connector::Address;
using connector::container::v1::ContainerDispatcherImpl;
using connector::json::JsonSerializerImpl;

// The messages are mapped to the container's provider, which the answers pass; the plain one serves single messages of
// this process.
void installHitchhikerServices()
{
    construct<HitchhikerServiceImpl>();
    construct<HitchhikerServiceProviderImpl>(slot<HitchhikerServiceImpl>);
    construct<HitchhikerContainerServiceProvider>(slot<HitchhikerServiceImpl>);
    construct<HitchhikerJsonSerialization>(slot<JsonSerializerImpl>);
    construct<HitchhikerMessageMapProvider>(slot<ContainerDispatcherImpl>, Address{"connector/v1/hitchhikerContainer"});

    serve<HitchhikerContainerServiceProvider>("connector/v1/hitchhikerContainer");
    serve<HitchhikerServiceProviderImpl>("connector/v1/hitchhiker");
}

} // namespace wiring
