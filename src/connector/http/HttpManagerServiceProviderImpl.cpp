#include "connector/http/HttpManagerServiceProviderImpl.h"

#include <stdexcept>

#include "connector/common/Log.h"
#include "connector/http/AccessToken.h"
#include "connector/http/HttpConfiguration.h"
#include "connector/http/TlsIdentity.h"

namespace connector::http {

namespace {

PocoHttpsServer::Handler routerHandler(const std::weak_ptr<Connector>& weakConnector)
{
    return [weakConnector](std::unique_ptr<HttpRequest> request) {
        const auto connector = weakConnector.lock();
        if (!connector)
            throw std::runtime_error("The connector has been stopped.");
        auto context = connector->newContext();
        context->setTransport(Context::Transport::http);
        PocoHttpsServer::Exchange exchange;
        exchange.cancellation = context->cancellation();
        exchange.answer = connector->handle(std::move(request), Address{"connector/http/router"}, std::move(context));
        return exchange;
    };
}

/// For a browser on this machine.
std::string urlText(const ServerSettings& settings, std::uint16_t port)
{
    std::string host = settings.address;
    if (host == "localhost" || host == "0.0.0.0")
        host = "127.0.0.1";
    else if (host == "::")
        host = "::1";
    const bool bracketed = host.find(':') != std::string::npos;
    return (settings.tls ? "https://" : "http://") + (bracketed ? "[" + host + "]" : host) + ":" +
           std::to_string(port) + "/";
}

/// What is to be changed where a port cannot be opened; nothing for one that a message asked for.
std::string keysOf(const ServerSettings& settings, bool asked)
{
    if (asked)
        return {};
    std::string keys = settings.port == 0 ? "http.address" : "http.address, http.port";
    if (!settings.unixSocket.empty())
        keys += ", http.unixSocket";
    return " (set by " + keys + ")";
}

template <class Response>
Future<Response> failed()
{
    return makeFailedFuture<Response>(std::current_exception());
}

} // namespace

HttpManagerServiceProviderImpl::HttpManagerServiceProviderImpl(std::shared_ptr<Connector> connector)
    : connector_(connector)
{}

HttpManagerServiceProviderImpl::~HttpManagerServiceProviderImpl()
{
    for (const auto& port : ports_)
        port.server->close();
}

void HttpManagerServiceProviderImpl::starting()
{
    {
        std::lock_guard lock(mutex_);
        accepting_ = true;
    }
    open(std::nullopt);
}

void HttpManagerServiceProviderImpl::stopped()
{
    std::vector<Port> closing;
    {
        std::lock_guard lock(mutex_);
        accepting_ = false;
        closing.swap(ports_);
    }
    announce();
    for (const auto& port : closing)
        port.server->close();
}

Future<OpenPortResponse> HttpManagerServiceProviderImpl::openPort(const OpenPort& request)
{
    try {
        const Port port = open(request.port);
        OpenPortResponse response;
        response.port = port.number;
        response.url = port.url;
        return makeReadyFuture(std::move(response));
    } catch (...) {
        return failed<OpenPortResponse>();
    }
}

Future<ClosePortResponse> HttpManagerServiceProviderImpl::closePort(const ClosePort& request)
{
    std::shared_ptr<PocoHttpsServer> server;
    {
        std::lock_guard lock(mutex_);
        const auto found = std::find_if(ports_.begin(), ports_.end(),
                                        [&request](const Port& port) { return port.number == request.port; });
        if (found == ports_.end())
            return makeFailedFuture<ClosePortResponse>(
                std::invalid_argument("Port " + std::to_string(request.port) + " is not open."));
        server = std::move(found->server);
        ports_.erase(found);
    }
    announce();
    server->close();
    ClosePortResponse response;
    response.port = request.port;
    return makeReadyFuture(std::move(response));
}

Future<ListPortsResponse> HttpManagerServiceProviderImpl::listPorts(const ListPorts&)
{
    ListPortsResponse response;
    for (const auto& port : ports())
        response.ports.push_back({port.number, port.url});
    return makeReadyFuture(std::move(response));
}

Future<GetCountersResponse> HttpManagerServiceProviderImpl::getCounters(const GetCounters&)
{
    GetCountersResponse response;
    ServerCounters& sum = response.counters;
    for (const auto& port : ports()) {
        const ServerCounters counters = port.server->counters();
        sum.connections += counters.connections;
        sum.accepted += counters.accepted;
        sum.turnedAway += counters.turnedAway;
        sum.requests += counters.requests;
        sum.requestsInFlight += counters.requestsInFlight;
        sum.refusedRequests += counters.refusedRequests;
        sum.failedRequests += counters.failedRequests;
    }
    return makeReadyFuture(std::move(response));
}

/// The configured port for none.
HttpManagerServiceProviderImpl::Port HttpManagerServiceProviderImpl::open(std::optional<std::uint16_t> number)
{
    const auto connector = connector_.lock();
    if (!connector)
        throw std::runtime_error("The connector has been stopped.");
    ServerSettings settings = readServerSettings(*connector);
    if (number) {
        settings.port = *number;
        settings.unixSocket.clear(); // the first port's
    }

    Port port;
    port.server = std::make_shared<PocoHttpsServer>(settings, routerHandler(connector_));
    try {
        port.server->open();
    } catch (const std::exception& error) {
        throw std::runtime_error(error.what() + keysOf(settings, number.has_value()));
    }
    port.number = port.server->port();
    port.url = urlText(settings, port.number);
    if (settings.tls)
        port.fingerprint = certificateFingerprint(settings.tls->certificate);
    bool listed = false;
    {
        std::lock_guard lock(mutex_);
        listed = accepting_;
        if (listed)
            ports_.push_back(port);
    }
    if (!listed) {
        port.server->close();
        throw std::runtime_error("The HTTP manager has been stopped.");
    }
    announce();
    return port;
}

std::vector<HttpManagerServiceProviderImpl::Port> HttpManagerServiceProviderImpl::ports() const
{
    std::lock_guard lock(mutex_);
    return ports_;
}

/// Makes the discovery file say what is so. A process that cannot announce itself still serves who knows its address.
void HttpManagerServiceProviderImpl::announce()
{
    std::lock_guard announcing(discoveryMutex_);
    const auto open = ports();
    const std::uint16_t first = open.empty() ? 0 : open.front().number;
    if (first == announced_)
        return;
    announced_ = first;
    discovery_.reset();
    if (first == 0)
        return;
    try {
        const auto connector = connector_.lock();
        const bool withToken = connector && readTokenFileWanted(*connector);
        discovery_.emplace(DiscoveryContent{
            open.front().url, withToken ? AccessToken::ofProcess().text() : std::string(), open.front().fingerprint});
    } catch (const std::exception& error) {
        common::log("connector.http", common::LogLevel::error,
                    std::string("Programs of this user cannot find this server: ") + error.what());
    }
}

} // namespace connector::http
