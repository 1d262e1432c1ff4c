#include "connector/configuration/ConfigurationCommandProvider.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "connector/configuration/ValueText.h"

namespace connector::configuration {

namespace {

using Arguments = std::vector<std::string>;
using Run = std::string (*)(Configuration&, const Arguments&);

std::string listSettings(Configuration& configuration, const Arguments&)
{
    std::string output;
    for (const auto& setting : configuration.list())
        output +=
            setting.name + " = " + toText(setting.value) + "  (" + setting.source + "; " + setting.description + ")\n";
    for (const auto& problem : configuration.problems())
        output += "ignored: " + problem + "\n";
    return output;
}

std::string getSetting(Configuration& configuration, const Arguments& arguments)
{
    return toText(configuration.get(arguments[0]));
}

std::string setSetting(Configuration& configuration, const Arguments& arguments)
{
    configuration.setFromText(arguments[0], arguments[1]);
    return getSetting(configuration, arguments);
}

std::string unsetSetting(Configuration& configuration, const Arguments& arguments)
{
    configuration.unset(arguments[0]);
    return getSetting(configuration, arguments);
}

struct Row
{
    const char* name;
    std::size_t arguments;
    const char* usage;
    const char* description;
    Run run;
};

constexpr Row kCommands[] = {
    {"configuration.list", 0, "", "all keys, their values and where these come from", listSettings},
    {"configuration.get", 1, "KEY", "the value of a key", getSetting},
    {"configuration.set", 2, "KEY VALUE", "sets a key until the process ends; answers its value", setSetting},
    {"configuration.unset", 1, "KEY", "takes back what was set; answers the key's value", unsetSetting},
};

administration::Command makeCommand(const Row& row, const std::shared_ptr<Configuration>& configuration)
{
    const std::string usage = row.usage;
    auto description = (usage.empty() ? "" : usage + ": ") + row.description;
    return {row.name, std::move(description), [&row, configuration](Arguments arguments) {
                if (arguments.size() != row.arguments)
                    throw std::invalid_argument(std::string("The command is ") + row.name +
                                                (row.arguments == 0 ? "" : " ") + row.usage + "; it got " +
                                                std::to_string(arguments.size()) + " arguments.");
                return makeReadyFuture(row.run(*configuration, arguments));
            }};
}

} // namespace

ConfigurationCommandProvider::ConfigurationCommandProvider(
    std::shared_ptr<Configuration> configuration, std::shared_ptr<administration::Administration> administration)
    : CommandProvider(std::move(administration))
{
    if (!configuration)
        throw std::invalid_argument("The configuration's commands need the configuration.");
    for (const auto& row : kCommands)
        add(makeCommand(row, configuration));
}

ConfigurationCommandProvider::~ConfigurationCommandProvider() = default;

} // namespace connector::configuration
