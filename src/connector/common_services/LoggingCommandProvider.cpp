#include "connector/common_services/LoggingCommandProvider.h"

#include <stdexcept>

#include "connector/common/Log.h"
#include "connector/common/LogRules.h"

namespace connector::common_services {

namespace {

using Arguments = std::vector<std::string>;
using common::LogLevel;

/// One for each part that writes, "*" for what no part of a specification names.
constexpr const char* kSources[] = {"*",
                                    "connector.administration",
                                    "connector.bayeux",
                                    "connector.common.tick",
                                    "connector.common_services",
                                    "connector.configuration",
                                    "connector.http",
                                    "connector.http.session",
                                    "connector.json",
                                    "connector.security"};

LogLevel levelInForce(std::string_view source)
{
    auto level = LogLevel::trace;
    while (level != LogLevel::off && !common::isLogged(source, level))
        level = static_cast<LogLevel>(static_cast<int>(level) - 1);
    return level;
}

std::string levels()
{
    std::string text;
    for (const auto* source : kSources)
        text += std::string(source) + " " + common::levelName(levelInForce(source)) + "\n";
    return text;
}

std::string setLevels(const Arguments& arguments)
{
    std::string specification;
    for (const auto& argument : arguments)
        specification += (specification.empty() ? "" : ",") + argument;
    if (!arguments.empty())
        common::setLogSpecification(specification);
    return levels();
}

} // namespace

LoggingCommandProvider::LoggingCommandProvider(std::shared_ptr<administration::Administration> administration)
    : CommandProvider(std::move(administration))
{
    add({"log.level",
         "[SOURCE=LEVEL…] Sets from which level on the log is written, in place of what was set before; "
         "shows the levels in force.",
         [](const Arguments& arguments) { return makeReadyFuture(setLevels(arguments)); }});
    add({"log.destination", "DESTINATION Sets where the log goes: stderr, stdout, none or file:PATH.",
         [](const Arguments& arguments) {
             if (arguments.size() != 1)
                 throw std::invalid_argument("Usage: log.destination DESTINATION");
             common::setLogDestination(arguments.front());
             return makeReadyFuture(std::string());
         }});
}

} // namespace connector::common_services
