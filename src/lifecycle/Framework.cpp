#include "lifecycle/Framework.h"

#include <stdexcept>

#include "connector/http/PocoHttpsServer.h"
#include "lifecycle/MicroServicesShutdown.h"
#include "platform/shutdown/ShutdownRegistry.h"
#include "wiring/core/Drivers.h"
#include "wiring/core/Module.h"

namespace lifecycle {
namespace {

struct State
{
    bool started = false;
    bool shutdownHookRegistered = false; ///< never cleared: the host keeps the hook
};

State state;

} // namespace

void ensureStarted()
{
    if (state.started)
        return;
    wiring::logLifecycle("Starting Connector Framework");
    connector::http::PocoHttpsServer::initializeConnectorSSL();
    if (!state.shutdownHookRegistered) {
        ShutdownRegistry::RegisterObject(new MicroServicesShutdown("MicroServicesShutdown"));
        state.shutdownHookRegistered = true;
    }
    wiring::startServicesManually();
    state.started = true;
}

void stop()
{
    if (!state.started)
        return;
    wiring::logLifecycle("Stopping Connector Framework");
    wiring::stopServicesManually();
    state.started = false;
}

void requireContainer()
{
    if constexpr (!kContainerEnabled)
        throw std::runtime_error("CppMicroServices is not enabled so this method isn't supported.");
}

} // namespace lifecycle
