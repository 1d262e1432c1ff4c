#include "platform/us/BundleContext.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Module.h"
#include "wiring/core/Slot.h"

namespace wiring {

void installConnectorRegistry()
{
    construct<connector::ConnectorImpl2>("default");

    std::shared_ptr<connector::Connector> registry = slot<connector::ConnectorImpl2>;
    registryRegistrationSlot = frameworkContext()->RegisterService<connector::Connector>(registry);
}

} // namespace wiring
