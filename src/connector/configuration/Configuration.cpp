#include "connector/configuration/Configuration.h"

namespace connector::configuration {

ConfigurationError::ConfigurationError(const std::string& message) : std::invalid_argument(message) {}
ConfigurationError::~ConfigurationError() = default;

} // namespace connector::configuration
