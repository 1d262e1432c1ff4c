#pragma once

#include "connector/http/HttpManagerMessages.h"

namespace connector::http {

/// Opens and closes the ports of this process. Failures: std::runtime_error when a port cannot be opened,
/// std::invalid_argument for a port that is not open.
class CONNECTOR_API HttpManagerServiceProvider : public ServiceProviderAPI<HttpManagerServiceProvider>
{
public:
    virtual Future<OpenPortResponse> openPort(const OpenPort& request) = 0;
    virtual Future<ClosePortResponse> closePort(const ClosePort& request) = 0;
    virtual Future<ListPortsResponse> listPorts(const ListPorts& request) = 0;
    virtual Future<GetCountersResponse> getCounters(const GetCounters& request) = 0;
};

} // namespace connector::http
