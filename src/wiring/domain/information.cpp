#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/information/ClientTypeServiceProvider.h"
#include "connector/information/InformationServiceProvider.h"
#include "connector/information/InformationWire.h"
#include "connector/json/JsonSerializerImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::information::v1;
using connector::Address;
using connector::container::v1::ContainerDispatcherImpl;
using connector::http::HttpSessionManagerImpl;
using connector::json::JsonSerializerImpl;

void installInformationServices()
{
    construct<ClientTypeServiceProvider>();
    construct<InformationServiceProviderImpl>(slot<HttpSessionManagerImpl>, engineSlot);
    construct<InformationJsonSerialization>(slot<JsonSerializerImpl>);
    construct<InformationMessageMapProvider>(slot<ContainerDispatcherImpl>, Address{"connector/v1/information"});

    serve<ClientTypeServiceProvider>("connector/v1/clientType");
    serve<InformationServiceProviderImpl>("connector/v1/information");
}

} // namespace wiring
