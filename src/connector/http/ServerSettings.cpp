#include "connector/http/ServerSettings.h"

#include <Poco/Timespan.h>

namespace connector::http {

ServerSettings::ServerSettings() : parameters(new Poco::Net::HTTPServerParams)
{
    parameters->setMaxThreads(2);
    parameters->setMaxQueued(1'024);
    parameters->setMaxKeepAliveRequests(0);
    parameters->setKeepAliveTimeout(Poco::Timespan(120, 0));
    parameters->setTimeout(Poco::Timespan(30, 0));
}

ServerSettings::~ServerSettings() = default;
ServerSettings::ServerSettings(const ServerSettings&) = default;
ServerSettings& ServerSettings::operator=(const ServerSettings&) = default;

} // namespace connector::http
