#include "connector/configuration/ConfigurationImpl.h"
#include "connector/http/HttpRouterImpl.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/security/HttpNonceServiceProvider.h"
#include "connector/security/NonceGeneratorHttpServiceProvider.h"
#include "connector/security/NonceJsonSerialization.h"
#include "connector/security/NonceServiceProviderImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {

using namespace connector::security::v1;
using connector::Address;
using connector::configuration::ConfigurationImpl;
using connector::http::HttpRouterImpl;
using connector::json::JsonSerializerImpl;
using connector::security::NonceGeneratorHttpRouteProvider;

// The guard of the HTTP routes, and the nonces that browsers get in with. The compute and security services of this
// group are not built yet.
void installSecurityServices()
{
    construct<NonceServiceImpl>();
    construct<NonceGeneratorHelperImpl>(slot<NonceServiceImpl>);
    construct<NonceGeneratorHttpServiceProvider>(slot<NonceGeneratorHelperImpl>, slot<ConfigurationImpl>);
    construct<NonceServiceProviderImpl>(slot<NonceServiceImpl>, slot<NonceGeneratorHelperImpl>);
    construct<HttpNonceServiceProvider>(slot<NonceServiceImpl>, slot<ConfigurationImpl>);
    construct<NonceJsonSerialization>(slot<JsonSerializerImpl>);
    construct<NonceGeneratorHttpRouteProvider>(
        slot<HttpRouterImpl>, Address{"connector/http/localhostFilter", "connector/v1/nonceGenerator"});

    serve<NonceGeneratorHttpServiceProvider>("connector/v1/nonceGenerator");
    serve<HttpNonceServiceProvider>("connector/v1/httpNonce");
    serve<NonceServiceProviderImpl>("connector/v1/nonce");
}

} // namespace wiring
