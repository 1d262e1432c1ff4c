#include <iostream>

#include "connector/administration/AdministrationImpl.h"
#include "connector/common_services/ConnectorCommandProvider.h"
#include "connector/common_services/EchoServiceProvider.h"
#include "connector/common_services/LoggingCommandProvider.h"
#include "connector/common_services/LoggingServiceProvider.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::common_services;
using connector::ConnectorImpl2;
using connector::administration::AdministrationImpl;
using connector::configuration::ConfigurationImpl;

void installCommonServices()
{
    construct<ConnectorCommandProvider>(slot<ConnectorImpl2>, slot<AdministrationImpl>);
    construct<EchoServiceProvider>();
    construct<LoggingCommandProvider>(slot<AdministrationImpl>);
    construct<LoggingServiceProvider>(slot<ConfigurationImpl>, "connector.common_services", std::cout);

    serve<EchoServiceProvider>("echo");
    serve<LoggingServiceProvider>("log");
}

} // namespace wiring
