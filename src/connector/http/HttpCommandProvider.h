#pragma once

#include "connector/administration/Administration.h"
#include "connector/core/Connector.h"

namespace connector::http {

/// The commands http.ports, http.open [PORT], http.close PORT and http.counters, sent as messages to the manager's
/// address.
class CONNECTOR_API HttpCommandProvider final : public administration::CommandProvider
{
public:
    HttpCommandProvider(std::shared_ptr<Connector> connector,
                        std::shared_ptr<administration::Administration> administration, Address address);
};

} // namespace connector::http
