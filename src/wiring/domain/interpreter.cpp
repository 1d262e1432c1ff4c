#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/container/ContainerDispatcherImpl.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/interpreter/AsyncEvalService.h"
#include "connector/interpreter/FEvalSequenceServiceProvider.h"
#include "connector/interpreter/InterpreterServiceProvider.h"
#include "connector/interpreter/InterpreterWire.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/shadow_files/ShadowService.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::interpreter::v1;
using connector::Address;
using connector::bayeux::BayeuxServerImpl;
using connector::configuration::ConfigurationImpl;
using connector::container::v1::ContainerDispatcherImpl;
using connector::http::HttpSessionManagerImpl;
using connector::json::JsonSerializerImpl;
using connector::shadow_files::v1::ShadowServiceImpl;

void installInterpreterServices()
{
    construct<AsyncEvalService>(slot<BayeuxServerImpl>, slot<HttpSessionManagerImpl>, slot<ShadowServiceImpl>,
                                engineSlot);
    slot<AsyncEvalService>->configure(slot<ConfigurationImpl>);
    construct<InterpreterServiceProviderImpl>(slot<ConfigurationImpl>, engineSlot);
    slot<InterpreterServiceProviderImpl>->serveAnswers(slot<AsyncEvalService>->answers());
    construct<FEvalSequenceServiceProvider>();
    construct<InterpreterJsonSerialization>(slot<JsonSerializerImpl>);
    construct<InterpreterMessageMapProvider>(slot<ContainerDispatcherImpl>, Address{"connector/v1/interpreter"},
                                             Address{"connector/v1/feval", "connector/v1/interpreter"});

    serve<InterpreterServiceProviderImpl>("connector/v1/interpreter");
    serve<FEvalSequenceServiceProvider>("connector/v1/feval");
}

} // namespace wiring
