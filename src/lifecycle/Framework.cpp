#include "lifecycle/Framework.h"

#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

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
    bool leftOver = false;               ///< a start failed and left what it had made
};

State state;

/// With a framework that is not started the shutdown hook has nothing to do; the threads of what is left must not run
/// into the end of what they use.
void discardLeftOver() noexcept
try {
    if (std::exchange(state.leftOver, false))
        wiring::discardServices();
} catch (const std::exception& error) {
    wiring::logLifecycle(std::string("What a failed start left cannot be ended: ") + error.what());
} catch (...) {
    wiring::logLifecycle("What a failed start left cannot be ended.");
}

/// At the exit, or when the module is unloaded. What was first used by a start that failed ends after this; a later
/// attempt may have got further and used more, until there is no more.
void discardLeftOverAtExit()
{
    constexpr int kMostAttempts = 100;
    static int attempts = 0;
    if (attempts < kMostAttempts && std::atexit(discardLeftOver) == 0)
        ++attempts;
}

/// Notes a start that does not get to its end.
class Attempt
{
public:
    Attempt() { state.leftOver = true; }
    ~Attempt()
    {
        if (state.leftOver)
            discardLeftOverAtExit();
    }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    void succeed() { state.leftOver = false; }
};

} // namespace

void ensureStarted()
{
    if (state.started)
        return;
    wiring::logLifecycle("Starting Connector Framework");
    // Nobody is to find the registry of a failed start before the new one, and its ports are needed again.
    if (state.leftOver)
        wiring::discardServices();
    Attempt attempt;
    connector::http::PocoHttpsServer::initializeConnectorSSL();
    if (!state.shutdownHookRegistered) {
        ShutdownRegistry::RegisterObject(new MicroServicesShutdown("MicroServicesShutdown"));
        state.shutdownHookRegistered = true;
    }
    wiring::startServicesManually();
    attempt.succeed();
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
