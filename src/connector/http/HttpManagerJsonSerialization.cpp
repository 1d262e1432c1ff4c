#include "connector/http/HttpManagerJsonSerialization.h"

#include "connector/http/HttpManagerMessages.h"
#include "connector/json/Members.h"

namespace connector::http {

namespace {

using json::Object;

std::uint16_t portMember(json::Members& members)
{
    return static_cast<std::uint16_t>(members.requireInteger("port", 1, 65'535));
}

Object::Ptr portObject(std::uint16_t port)
{
    auto object = json::makeObject();
    object->set("port", static_cast<int>(port));
    return object;
}

Object::Ptr portObject(std::uint16_t port, const std::string& url)
{
    auto object = portObject(port);
    object->set("url", url);
    return object;
}

Object::Ptr countersObject(const ServerCounters& counters)
{
    auto object = json::makeObject();
    object->set("connections", counters.connections);
    object->set("accepted", counters.accepted);
    object->set("turnedAway", counters.turnedAway);
    object->set("requests", counters.requests);
    object->set("requestsInFlight", counters.requestsInFlight);
    object->set("refusedRequests", counters.refusedRequests);
    object->set("failedRequests", counters.failedRequests);
    return object;
}

} // namespace

HttpManagerJsonSerialization::HttpManagerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer)
    : JsonSerialization(std::move(serializer))
{
    add<OpenPort>(
        "OpenPort", [](const OpenPort& message) { return portObject(message.port); },
        [](json::Members& members) {
            return std::make_unique<OpenPort>(
                static_cast<std::uint16_t>(members.optionalInteger("port", 0, 0, 65'535)));
        });
    add<OpenPortResponse>("OpenPortResponse",
                          [](const OpenPortResponse& message) { return portObject(message.port, message.url); }, {});
    add<ClosePort>(
        "ClosePort", [](const ClosePort& message) { return portObject(message.port); },
        [](json::Members& members) { return std::make_unique<ClosePort>(portMember(members)); });
    add<ClosePortResponse>("ClosePortResponse",
                           [](const ClosePortResponse& message) { return portObject(message.port); }, {});
    add<ListPorts>(
        "ListPorts", [](const ListPorts&) { return json::makeObject(); },
        [](json::Members&) { return std::make_unique<ListPorts>(); });
    add<ListPortsResponse>("ListPortsResponse",
                           [](const ListPortsResponse& message) {
                               auto object = json::makeObject();
                               Poco::JSON::Array::Ptr ports = new Poco::JSON::Array;
                               for (const auto& port : message.ports)
                                   ports->add(portObject(port.port, port.url));
                               object->set("ports", ports);
                               return object;
                           },
                           {});
    add<GetCounters>(
        "GetCounters", [](const GetCounters&) { return json::makeObject(); },
        [](json::Members&) { return std::make_unique<GetCounters>(); });
    add<GetCountersResponse>("GetCountersResponse",
                             [](const GetCountersResponse& message) { return countersObject(message.counters); }, {});
}

} // namespace connector::http
