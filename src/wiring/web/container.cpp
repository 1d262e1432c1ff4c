#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/http/HttpRouterImpl.h"
#include "connector/json/JsonSerializerImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::container;
using namespace connector::container::v1;
using connector::Address;
using connector::http::HttpRouterImpl;
using connector::json::JsonSerializerImpl;

void installContainerServices()
{
    construct<ContainerDispatcherImpl>();
    construct<ContainerDispatcherServiceProviderImpl>(slot<ContainerDispatcherImpl>);
    construct<ContainerHttpServiceProvider>(slot<JsonSerializerImpl>);
    construct<ContainerJsonSerialization>(slot<JsonSerializerImpl>);
    construct<ContainerHttpRouteProvider>(slot<HttpRouterImpl>,
                                          Address{"connector/http/localhostFilter", "connector/http/session",
                                                  "connector/v1/httpNonce", "connector/v1/http",
                                                  "connector/v1/clientType", "connector/v1/container"});

    serve<ContainerHttpServiceProvider>("connector/v1/http");
    serve<ContainerDispatcherServiceProviderImpl>("connector/v1/container");
}

} // namespace wiring
