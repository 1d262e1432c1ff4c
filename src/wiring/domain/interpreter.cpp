#include "connector/configuration/ConfigurationImpl.h"
#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/interpreter/InterpreterServiceProvider.h"
#include "connector/interpreter/InterpreterWire.h"
#include "connector/json/JsonSerializerImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::interpreter::v1;
using connector::Address;
using connector::configuration::ConfigurationImpl;
using connector::container::v1::ContainerDispatcherImpl;
using connector::json::JsonSerializerImpl;

// Asynchronous evaluation and sequences of calls are not built yet.
void installInterpreterServices()
{
    construct<InterpreterServiceProviderImpl>(slot<ConfigurationImpl>, engineSlot);
    construct<InterpreterJsonSerialization>(slot<JsonSerializerImpl>);
    construct<InterpreterMessageMapProvider>(slot<ContainerDispatcherImpl>, Address{"connector/v1/interpreter"},
                                             Address{"connector/v1/feval", "connector/v1/interpreter"});

    serve<InterpreterServiceProviderImpl>("connector/v1/interpreter");
}

} // namespace wiring
