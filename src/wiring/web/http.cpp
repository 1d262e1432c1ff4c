#include "connector/administration/AdministrationImpl.h"
#include "connector/configuration/ConfigurationImpl.h"
#include "connector/http/HttpCommandProvider.h"
#include "connector/http/HttpConstantServiceProvider.h"
#include "connector/http/HttpLocalHostFilterServiceProvider.h"
#include "connector/http/HttpManagerJsonSerialization.h"
#include "connector/http/HttpManagerServiceProviderImpl.h"
#include "connector/http/HttpPathFilterServiceProvider.h"
#include "connector/http/HttpResponseHeaderServiceProvider.h"
#include "connector/http/HttpRouterImpl.h"
#include "connector/http/HttpRouterServiceProvider.h"
#include "connector/http/HttpSessionManagerImpl.h"
#include "connector/http/HttpSessionServiceProvider.h"
#include "connector/http/PocoHttpClientServiceProvider.h"
#include "connector/json/JsonSerializerImpl.h"
#include "wiring/core/Installers.h"
#include "wiring/core/Slot.h"

namespace wiring {
namespace {

using namespace connector::http;
using connector::Address;
using connector::ConnectorImpl2;
using connector::administration::AdministrationImpl;
using connector::configuration::ConfigurationImpl;
using connector::json::JsonSerializerImpl;

// A name in an address need not be registered when the route is made: the messaging and security installers run later.
std::vector<std::pair<std::string, Address>> routes()
{
    return {
        {"/messageservice/async",
         Address{"connector/http/localhostFilter", "connector/http/session", "connector/v1/httpNonce",
                 "connector/bayeux/http", "connector/bayeux/longPoll"}},
        {"/connector/messagebroker/amf", Address{"connector/http/serviceUnavailable"}},
        {"/vendra/toolbox",
         Address{"connector/http/localhostFilter", "connector/http/vendraToolbox", "connector/http/pathFilter",
                 "connector/http/responseHeader", "connector/http/session", "connector/v1/httpNonce",
                 "connector/http/staticContent"}},
        {"", Address{"connector/http/localhostFilter", "connector/http/pathFilter", "connector/http/responseHeader",
                     "connector/v1/httpNonce", "connector/http/staticContent"}},
    };
}

} // namespace

// Static content and the toolbox content are not built yet: the routes that name them are answered with 503.
void installHttpServices()
{
    construct<HttpCommandProvider>(slot<ConnectorImpl2>, slot<AdministrationImpl>, Address{"connector/http/manager"});
    construct<HttpConstantServiceProvider>(static_cast<unsigned short>(503), std::string());
    construct<HttpPathFilterServiceProvider>(HttpPathFilterServiceProvider::defaultWhiteList(),
                                             static_cast<unsigned short>(404), std::string("File not found."));
    construct<HttpResponseHeaderServiceProvider>(HttpResponseHeaderServiceProvider::defaultHeaderRules());
    construct<HttpRouterImpl>(routes());
    construct<HttpRouterServiceProvider>(slot<HttpRouterImpl>);
    construct<HttpManagerJsonSerialization>(slot<JsonSerializerImpl>);
    construct<HttpManagerServiceProviderImpl>(slot<ConnectorImpl2>);
    construct<HttpSessionManagerImpl>();
    construct<HttpSessionServiceProvider>(slot<HttpSessionManagerImpl>);
    construct<PocoHttpClientServiceProvider>();
    construct<HttpLocalHostFilterServiceProvider>(slot<ConfigurationImpl>,
                                                  HttpLocalHostFilterServiceProvider::defaultWhiteList(),
                                                  static_cast<unsigned short>(404), std::string("Not Found."));

    serve<HttpManagerServiceProviderImpl>("connector/http/manager");
    serve<HttpRouterServiceProvider>("connector/http/router");
    serve<HttpPathFilterServiceProvider>("connector/http/pathFilter");
    serve<HttpLocalHostFilterServiceProvider>("connector/http/localhostFilter");
    serve<HttpResponseHeaderServiceProvider>("connector/http/responseHeader");
    serve<HttpConstantServiceProvider>("connector/http/serviceUnavailable");
    serve<HttpSessionServiceProvider>("connector/http/session");
    serve<PocoHttpClientServiceProvider>("connector/http/client");
}

} // namespace wiring
