#pragma once

#include <string_view>

#include "platform/fl/diagnostic_logger.h"

namespace us {
class BundleContext;
}

namespace wiring {

/// The module's logger, "connector::us_vendra_host". All the module's messages have one level.
const fl::log::diagnostic_logger& moduleLogger();
inline constexpr unsigned kModuleLevel = 8;

/// Writes a life-cycle line if the logger admits its level.
void logLifecycle(std::string_view text);

/// The bundle context of the host's micro-services framework, owned by the host. Throws std::runtime_error "Invalid
/// CppMicroServices framework" when the host has none, or has stopped it.
us::BundleContext* frameworkContext();

} // namespace wiring
