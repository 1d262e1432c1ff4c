#pragma once

#include <memory>

#include "connector/administration/Administration.h"
#include "connector/configuration/Configuration.h"

namespace connector::configuration {

/// The commands configuration.list, configuration.get, configuration.set and configuration.unset.
class CONNECTOR_API ConfigurationCommandProvider final : public administration::CommandProvider
{
public:
    ConfigurationCommandProvider(std::shared_ptr<Configuration> configuration,
                                 std::shared_ptr<administration::Administration> administration);
    ~ConfigurationCommandProvider() override;
};

} // namespace connector::configuration
