#pragma once

#include <mutex>
#include <optional>

#include "connector/core/Connector.h"
#include "connector/http/DiscoveryFile.h"
#include "connector/http/HttpManagerServiceProvider.h"

namespace connector::http {

/// Opens the configured port when it starts and closes all ports when it stops. What comes in on a port goes to
/// "connector/http/router". The first port that is open stands in the discovery file.
class CONNECTOR_API HttpManagerServiceProviderImpl final : public HttpManagerServiceProvider
{
public:
    explicit HttpManagerServiceProviderImpl(std::shared_ptr<Connector> connector);
    ~HttpManagerServiceProviderImpl() override;

    Future<OpenPortResponse> openPort(const OpenPort& request) override;
    Future<ClosePortResponse> closePort(const ClosePort& request) override;
    Future<ListPortsResponse> listPorts(const ListPorts& request) override;
    Future<GetCountersResponse> getCounters(const GetCounters& request) override;

protected:
    void starting() override;
    void stopped() override;

private:
    struct Port
    {
        std::uint16_t number = 0;
        std::string url;
        std::string fingerprint; ///< of its certificate; empty without TLS
        std::shared_ptr<PocoHttpsServer> server;
    };

    Port open(std::optional<std::uint16_t> number);
    std::vector<Port> ports() const;
    void announce();

    // Weak: the registry owns this provider.
    const std::weak_ptr<Connector> connector_;
    mutable std::mutex mutex_;
    std::vector<Port> ports_;
    bool accepting_ = false; ///< false once stopped: no port is added any more

    std::mutex discoveryMutex_;
    std::optional<DiscoveryFile> discovery_;
    std::uint16_t announced_ = 0;
};

} // namespace connector::http
