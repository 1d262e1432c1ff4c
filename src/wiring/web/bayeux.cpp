#include "connector/bayeux/BayeuxHttpServiceProvider.h"
#include "connector/bayeux/BayeuxLongPollServiceProvider.h"
#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/bayeux/BayeuxServiceProviderImpl.h"
#include "connector/bayeux/BayeuxWebSocketServiceProvider.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::bayeux;
using connector::Address;
using connector::configuration::ConfigurationImpl;

void installBayeuxServices()
{
    construct<BayeuxServerImpl>();
    construct<BayeuxHttpServiceProvider>(Address{"connector/bayeux/longPoll", "connector/bayeux/service"},
                                         Address{"connector/bayeux/webSocket", "connector/bayeux/service"}, Address{});
    construct<BayeuxLongPollServiceProvider>();
    construct<BayeuxWebSocketServiceProvider>();
    construct<BayeuxServiceProviderImpl>(slot<BayeuxServerImpl>);

    slot<BayeuxLongPollServiceProvider>->configure(slot<ConfigurationImpl>);
    slot<BayeuxWebSocketServiceProvider>->configure(slot<ConfigurationImpl>);
    slot<BayeuxServiceProviderImpl>->configure(slot<ConfigurationImpl>);

    serve<BayeuxHttpServiceProvider>("connector/bayeux/http");
    serve<BayeuxLongPollServiceProvider>("connector/bayeux/longPoll");
    serve<BayeuxWebSocketServiceProvider>("connector/bayeux/webSocket");
    serve<BayeuxServiceProviderImpl>("connector/bayeux/service");
}

} // namespace wiring
