#include "connector/administration/AdministrationImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

// The registry does not exist yet: nothing can be registered here.
void installAdministrationServices() { construct<connector::administration::AdministrationImpl>(); }

} // namespace wiring
