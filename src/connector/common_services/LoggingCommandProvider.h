#pragma once

#include "connector/administration/Administration.h"

namespace connector::common_services {

/// The commands log.level [SOURCE=LEVEL…] and log.destination DESTINATION, which set what setLogSpecification and
/// setLogDestination set. Without arguments log.level shows the levels in force of the sources that write to the log.
class CONNECTOR_API LoggingCommandProvider final : public administration::CommandProvider
{
public:
    explicit LoggingCommandProvider(std::shared_ptr<administration::Administration> administration);
};

} // namespace connector::common_services
