#include "wiring/core/Module.h"

#include <stdexcept>

#include "platform/us/BundleContext.h"
#include "platform/us/Framework.h"
#include "platform/us/ProcessFramework.h"

namespace wiring {
namespace {

const fl::log::diagnostic_logger logger("connector::us_vendra_host");

} // namespace

const fl::log::diagnostic_logger& moduleLogger() { return logger; }

void logLifecycle(std::string_view text)
{
    if (logger.admits(kModuleLevel))
        logger.log(kModuleLevel, text);
}

us::BundleContext* frameworkContext()
{
    const auto framework = foundation::cppmicroservices::getFramework();
    us::BundleContext* context = framework ? framework->GetBundleContext() : nullptr;
    if (!context) // a framework that was stopped has none
        throw std::runtime_error("Invalid CppMicroServices framework");
    return context;
}

} // namespace wiring
