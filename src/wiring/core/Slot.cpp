#include "wiring/core/Slot.h"

#include <boost/core/demangle.hpp>

#include "platform/fl/diagnostic_logger.h"

namespace wiring {

boost::shared_ptr<rqe::RQE> engineSlot;
us::ServiceRegistration<connector::Connector> registryRegistrationSlot;

namespace {

const fl::log::diagnostic_logger wiringLogger("connector::wiring");

} // namespace

void trace(const char* step, const std::type_info& type)
{
    if (wiringLogger.admits(fl::log::level::kTrace))
        trace(step, boost::core::demangle(type.name()));
}

void trace(const char* step, const std::string& name)
{
    if (wiringLogger.admits(fl::log::level::kTrace))
        wiringLogger.log(fl::log::level::kTrace, std::string(step) + ' ' + name);
}

} // namespace wiring
