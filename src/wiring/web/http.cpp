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
#include "connector/http/StaticContentManagerJsonSerialization.h"
#include "connector/http/StaticContentManagerServiceProviderImpl.h"
#include "connector/http/StaticContentServiceImpl.h"
#include "connector/http/StaticContentServiceProvider.h"
#include "connector/http/VendraToolboxStaticContentServiceProvider.h"
#include "connector/json/JsonSerializerImpl.h"
#include "platform/fl/filesystem.h"
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

// An installation whose place is not known has relative folders here, which have no files.
StaticContentServiceImpl::Roots contentRoots()
{
    using fl::filesystem::detail::concatenate_pathname;
    auto root = fl::filesystem::get_install_path();
    if (!root.empty())
        root = fl::filesystem::detail::make_native_form(root);
    const auto folder = [&root](std::initializer_list<const wchar_t*> pieces) {
        auto path = root;
        for (const wchar_t* piece : pieces)
            path = concatenate_pathname(path, piece);
        return path;
    };
    return {
        {"/ui", folder({L"ui"})},
        {"/remote", folder({L"remote"})},
        {"/toolbox", folder({L"toolbox"})},
        {"/vendra/toolbox", folder({L"toolbox"})},
        {"/derived", folder({L"derived"})},
        {"/test", folder({L"test"})},
        {"", folder({L"toolbox", L"vendra", L"connector2", L"connector", L"docroot"})},
    };
}

} // namespace

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
    construct<VendraToolboxStaticContentServiceProvider>();
    construct<PocoHttpClientServiceProvider>();
    construct<HttpLocalHostFilterServiceProvider>(slot<ConfigurationImpl>,
                                                  HttpLocalHostFilterServiceProvider::defaultWhiteList(),
                                                  static_cast<unsigned short>(404), std::string("Not Found."));
    construct<StaticContentServiceImpl>(slot<ConfigurationImpl>, contentRoots(), StaticContentServiceImpl::Flags(),
                                        false);
    construct<StaticContentServiceProvider>(slot<StaticContentServiceImpl>);
    construct<StaticContentManagerServiceProviderImpl>(slot<StaticContentServiceImpl>);
    construct<StaticContentManagerJsonSerialization>(slot<JsonSerializerImpl>);

    serve<HttpManagerServiceProviderImpl>("connector/http/manager");
    serve<HttpRouterServiceProvider>("connector/http/router");
    serve<StaticContentManagerServiceProviderImpl>("connector/http/staticContentManager");
    serve<StaticContentServiceProvider>("connector/http/staticContent");
    serve<HttpPathFilterServiceProvider>("connector/http/pathFilter");
    serve<HttpLocalHostFilterServiceProvider>("connector/http/localhostFilter");
    serve<HttpResponseHeaderServiceProvider>("connector/http/responseHeader");
    serve<HttpConstantServiceProvider>("connector/http/serviceUnavailable");
    serve<VendraToolboxStaticContentServiceProvider>("connector/http/vendraToolbox");
    serve<HttpSessionServiceProvider>("connector/http/session");
    serve<PocoHttpClientServiceProvider>("connector/http/client");
}

} // namespace wiring
