#include "connector/core/ServiceFault.h"

namespace connector {

ServiceFault::ServiceFault(std::string code, const std::string& message, Details details)
    : std::runtime_error(message), code_(std::move(code)), details_(std::move(details))
{}

ServiceFault::~ServiceFault() = default;

} // namespace connector
