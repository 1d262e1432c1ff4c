#include "platform/rqe/ProcessSession.h"
#include "wiring/core/Drivers.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Module.h"
#include "wiring/core/Slot.h"

namespace wiring {

// Installers read slots that earlier ones filled: the order is fixed, and neither alphabetical nor that of the
// teardown.
constexpr std::array<Step, 29> startSteps{{
    {"installAdministrationServices", installAdministrationServices},
    {"installConnectorRegistry", installConnectorRegistry},
    {"installJsonServices", installJsonServices},
    {"installConfigurationServices", installConfigurationServices},
    {"installHttpServices", installHttpServices},
    {"installBayeuxServices", installBayeuxServices},
    {"installCommonServices", installCommonServices},
    {"installContainerServices", installContainerServices},
    {"installDesktopServices", installDesktopServices},
    {"installFileServices"},
    {"installHitchhikerServices", installHitchhikerServices},
    {"installJavaNativeBridgeServices"},
    {"installEditorServices"},
    {"installGdsServices"},
    {"installFileSharingServices"},
    {"installFileUploadServices"},
    {"installFileVersioningServices"},
    {"installInformationServices", installInformationServices},
    {"installShadowFilesServices", installShadowFilesServices},
    {"installInterpreterServices", installInterpreterServices},
    {"installCosgServices"},
    {"installJsonJavaConversion"},
    {"installJavaMessageServiceBridge"},
    {"installLoginServices"},
    {"installPairingKeyServices"},
    {"installRestVendraServices"},
    {"installSecurityServices", installSecurityServices},
    {"installSessionServices"},
    {"installWorkerServices"},
}};

namespace {

void captureEngine()
{
    const auto session = rqe::ProcessSession::session();
    if (session && session->hasEngine() && session->engine())
        engineSlot = rqe::Factory::getCurrentLocalRQE();
}

} // namespace

void startServicesManually()
{
    logLifecycle("Starting services manually");
    captureEngine();
    for (const auto& step : startSteps)
        if (step.run)
            step.run();
    logLifecycle("Done starting services manually");
}

} // namespace wiring
