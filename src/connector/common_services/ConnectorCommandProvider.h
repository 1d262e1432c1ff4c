#pragma once

#include "connector/administration/Administration.h"
#include "connector/core/Connector.h"

namespace connector::common_services {

/// The commands connector.list (the providers, each "running" or "stopped") and connector.send NAME JSON (sends one
/// provider the message of a JSON text, read and written by the JSON services, and shows its answer).
class CONNECTOR_API ConnectorCommandProvider final : public administration::CommandProvider
{
public:
    /// The connector is not kept alive.
    ConnectorCommandProvider(std::shared_ptr<Connector> connector,
                             std::shared_ptr<administration::Administration> administration);
};

} // namespace connector::common_services
