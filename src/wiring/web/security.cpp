#include "connector/configuration/ConfigurationImpl.h"
#include "connector/security/HttpNonceServiceProvider.h"
#include "connector/security/NonceService.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::security::v1;
using connector::configuration::ConfigurationImpl;

// The guard of the HTTP routes. The nonce generator, compute and security services of this group are not built yet.
void installSecurityServices()
{
    construct<NonceServiceImpl>();
    construct<HttpNonceServiceProvider>(slot<NonceServiceImpl>, slot<ConfigurationImpl>);

    serve<HttpNonceServiceProvider>("connector/v1/httpNonce");
}

} // namespace wiring
