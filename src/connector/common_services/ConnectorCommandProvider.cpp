#include "connector/common_services/ConnectorCommandProvider.h"

#include "connector/json/JsonSerializerServiceProvider.h"

namespace connector::common_services {

namespace {

using Arguments = std::vector<std::string>;

constexpr const char* kSerialize = "connector/json/serialize";
constexpr const char* kDeserialize = "connector/json/deserialize";

/// A message that no provider serves.
class Probe final : public Message
{};

/// The registry tells names only. A stopped provider refuses any message before it looks at it, with a text of its own;
/// a running one refuses this message's class, or serves any.
const char* stateOf(Connector& connector, const std::string& name)
{
    auto answer =
        connector.handle(std::make_unique<Probe>(), Address(std::vector<std::string>{name}), connector.newContext());
    if (!answer.isReady()) {
        answer.cancel();
        return "running";
    }
    try {
        answer.get();
    } catch (const UnknownServiceProvider&) {
        return "removed";
    } catch (const std::exception& error) {
        if (std::string_view(error.what()) == "Service exists but is not running.")
            return "stopped";
    }
    return "running";
}

std::string list(Connector& connector)
{
    std::string text;
    for (const auto& name : connector.listServiceProviders())
        text += name + " " + stateOf(connector, name) + "\n";
    return text;
}

Future<std::string> send(const std::shared_ptr<Connector>& connector, const std::string& name, const std::string& json)
{
    const auto context = connector->newContext();
    return connector
        ->handle(std::make_unique<json::JsonMessage>(json), Address(std::vector<std::string>{kDeserialize, name}),
                 std::shared_ptr<Context>(context))
        .then([connector, context](MessageFuture answer) {
            return connector->handle(std::make_unique<json::SerializeMessage>(answer.get()), Address{kSerialize},
                                     std::shared_ptr<Context>(context));
        })
        .then([](MessageFuture text) {
            const auto message = text.get();
            return dynamic_cast<const json::JsonMessage&>(*message).text + "\n";
        });
}

std::shared_ptr<Connector> locked(const std::weak_ptr<Connector>& weak)
{
    auto connector = weak.lock();
    if (!connector)
        throw std::runtime_error("The connector has been stopped.");
    return connector;
}

} // namespace

ConnectorCommandProvider::ConnectorCommandProvider(std::shared_ptr<Connector> connector,
                                                   std::shared_ptr<administration::Administration> administration)
    : CommandProvider(std::move(administration))
{
    if (!connector)
        throw std::invalid_argument("The connector's commands need the connector.");
    add({"connector.list", "Lists the services and whether they run.",
         [weak = std::weak_ptr(connector)](const Arguments& arguments) {
             if (!arguments.empty())
                 throw std::invalid_argument("Usage: connector.list");
             return makeReadyFuture(list(*locked(weak)));
         }});
    add({"connector.send", "NAME JSON Sends a service a message, {\"type\": …}, and shows the answer.",
         [weak = std::weak_ptr(connector)](const Arguments& arguments) {
             if (arguments.size() != 2)
                 throw std::invalid_argument("Usage: connector.send NAME JSON");
             return send(locked(weak), arguments[0], arguments[1]);
         }});
}

} // namespace connector::common_services
