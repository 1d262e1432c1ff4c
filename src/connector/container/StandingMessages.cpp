#include "connector/container/StandingMessages.h"

#include <string>

#include "connector/configuration/ConfigurationServiceProvider.h"
#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"

namespace connector::container::v1 {
namespace {

constexpr const char* kConfigurationService = "connector/configuration";
constexpr const char* kKey = "security.clientsManage";

bool mayManage(const Context& context)
{
    const auto connector = context.connector();
    if (!connector->listServiceProviders().contains(kConfigurationService))
        return false;
    auto answer = connector->handle(std::make_unique<configuration::GetConfiguration>(kKey),
                                    Address{kConfigurationService}, connector->newContext());
    if (!answer.isReady())
        return false;
    const auto message = answer.get();
    const auto* values = dynamic_cast<const configuration::ConfigurationValues*>(message.get());
    if (!values || values->settings.empty())
        return false;
    const auto* allowed = std::get_if<bool>(&values->settings.front().value);
    return allowed && *allowed;
}

} // namespace

const std::vector<StandingMessage>& standingMessages()
{
    static const std::vector<StandingMessage> messages{
        {"Echo", "echo"},
        {"LogRecord", "log"},
        {"OpenPort", "connector/http/manager", true},
        {"ClosePort", "connector/http/manager", true},
        {"ListPorts", "connector/http/manager", true},
        {"GetCounters", "connector/http/manager", true},
        {"AddContentRoot", "connector/http/staticContentManager", true},
        {"RemoveContentRoot", "connector/http/staticContentManager", true},
        {"ListContentRoots", "connector/http/staticContentManager", true},
    };
    return messages;
}

void requireManagement(std::string_view type, const Context& context)
{
    if (!mayManage(context))
        throw ServiceFault("forbidden", "Messages of the type \"" + std::string(type) +
                                            "\" are for clients only where " + kKey + " is true.");
}

} // namespace connector::container::v1
