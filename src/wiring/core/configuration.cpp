#include "connector/administration/AdministrationImpl.h"
#include "connector/configuration/ConfigurationCommandProvider.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/configuration/ConfigurationJsonSerialization.h"
#include "connector/configuration/ConfigurationServiceProviderImpl.h"
#include "connector/json/JsonSerializerImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::configuration;
using connector::administration::AdministrationImpl;
using connector::json::JsonSerializerImpl;

void installConfigurationServices()
{
    construct<ConfigurationImpl>();
    construct<ConfigurationCommandProvider>(slot<ConfigurationImpl>, slot<AdministrationImpl>);
    construct<ConfigurationServiceProviderImpl>(slot<ConfigurationImpl>);
    construct<ConfigurationJsonSerialization>(slot<JsonSerializerImpl>);

    serve<ConfigurationServiceProviderImpl>("connector/configuration");
}

} // namespace wiring
