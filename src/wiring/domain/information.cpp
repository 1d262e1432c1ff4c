#include "connector/information/ClientTypeServiceProvider.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::information::v1;

// The filter that every container passes. The information service of this group is not built yet.
void installInformationServices()
{
    construct<ClientTypeServiceProvider>();

    serve<ClientTypeServiceProvider>("connector/v1/clientType");
}

} // namespace wiring
