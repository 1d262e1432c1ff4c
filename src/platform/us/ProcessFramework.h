#pragma once

#include <memory>

#include "platform/Export.h"
#include "platform/us/Framework.h"

namespace foundation::cppmicroservices {

/// The framework that host and modules of this process share: made and started at the first call, unless the host has
/// set another one or none before. Empty after the host has emptied it. Whoever keeps the pointer keeps the framework
/// running. Threads: any.
VENDRA_PLATFORM_API std::shared_ptr<us::Framework> getFramework();

/// For the host: puts another framework, already started, in place of the present one, or with an empty pointer none.
/// The present one is let go, which stops it unless somebody else holds it. Threads: any.
VENDRA_PLATFORM_API void setFramework(std::shared_ptr<us::Framework> framework);

} // namespace foundation::cppmicroservices
