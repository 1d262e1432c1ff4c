#include "connector/http/HttpCommandProvider.h"

#include <charconv>
#include <stdexcept>

#include "connector/http/HttpManagerMessages.h"

namespace connector::http {

namespace {

using Arguments = std::vector<std::string>;

std::uint16_t portOf(const std::string& text)
{
    std::uint16_t port = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), port);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size())
        throw std::invalid_argument("Not a port: \"" + text + "\"");
    return port;
}

void expectArguments(const Arguments& arguments, std::size_t least, std::size_t most, const char* usage)
{
    if (arguments.size() < least || arguments.size() > most)
        throw std::invalid_argument(std::string("Usage: ") + usage);
}

/// Sends messages to the manager and makes text of its answers.
class Manager
{
public:
    Manager(std::weak_ptr<Connector> connector, Address address)
        : connector_(std::move(connector)), address_(std::move(address))
    {}

    template <class Response>
    Future<std::string> ask(std::unique_ptr<Message> request, std::string (*text)(const Response&)) const
    {
        const auto connector = connector_.lock();
        if (!connector)
            throw std::runtime_error("The connector has been stopped.");
        Address address = address_;
        return connector->handle(std::move(request), std::move(address), connector->newContext())
            .then([text](MessageFuture settled) { return text(dynamic_cast<const Response&>(*settled.get())); });
    }

private:
    std::weak_ptr<Connector> connector_;
    Address address_;
};

std::string portsText(const ListPortsResponse& response)
{
    std::string text;
    for (const auto& port : response.ports)
        text += std::to_string(port.port) + " " + port.url + "\n";
    return text.empty() ? "No port is open.\n" : text;
}

std::string openedText(const OpenPortResponse& response) { return "Listening on " + response.url + "\n"; }

std::string closedText(const ClosePortResponse& response)
{
    return "Port " + std::to_string(response.port) + " is closed.\n";
}

std::string countersText(const GetCountersResponse& response)
{
    const ServerCounters& counters = response.counters;
    const auto line = [](const char* name, std::uint64_t value) {
        return std::string(name) + " " + std::to_string(value) + "\n";
    };
    return line("connections", counters.connections) + line("accepted", counters.accepted) +
           line("turnedAway", counters.turnedAway) + line("requests", counters.requests) +
           line("requestsInFlight", counters.requestsInFlight) + line("refusedRequests", counters.refusedRequests) +
           line("failedRequests", counters.failedRequests);
}

} // namespace

HttpCommandProvider::HttpCommandProvider(std::shared_ptr<Connector> connector,
                                         std::shared_ptr<administration::Administration> administration,
                                         Address address)
    : CommandProvider(std::move(administration))
{
    const Manager manager(connector, std::move(address));
    add({"http.ports", "Lists the open ports.", [manager](Arguments arguments) {
             expectArguments(arguments, 0, 0, "http.ports");
             return manager.ask<ListPortsResponse>(std::make_unique<ListPorts>(), portsText);
         }});
    add({"http.open", "[PORT] Listens on a port, any free one without a number.", [manager](Arguments arguments) {
             expectArguments(arguments, 0, 1, "http.open [PORT]");
             const auto port = arguments.empty() ? std::uint16_t{0} : portOf(arguments.front());
             return manager.ask<OpenPortResponse>(std::make_unique<OpenPort>(port), openedText);
         }});
    add({"http.close", "PORT Closes a port.", [manager](Arguments arguments) {
             expectArguments(arguments, 1, 1, "http.close PORT");
             return manager.ask<ClosePortResponse>(std::make_unique<ClosePort>(portOf(arguments.front())), closedText);
         }});
    add({"http.counters", "Shows what the open ports have done.", [manager](Arguments arguments) {
             expectArguments(arguments, 0, 0, "http.counters");
             return manager.ask<GetCountersResponse>(std::make_unique<GetCounters>(), countersText);
         }});
}

} // namespace connector::http
