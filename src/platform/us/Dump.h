#pragma once

#include <ostream>

#include "platform/Export.h"
#include "platform/us/Framework.h"

namespace us {

/// For people who look for what is missing: every service with its id, interfaces, owner and users, and every open
/// tracker with what it wants and how much of it there is. Threads: any.
VENDRA_PLATFORM_API void Dump(std::ostream& out, const Framework& framework);

} // namespace us
