#pragma once

#include <chrono>
#include <cstddef>

#include "connector/Export.h"
#include "connector/core/Connector.h"
#include "connector/http/ServerSettings.h"

namespace connector::http {

struct SessionLimits
{
    std::chrono::milliseconds idle{std::chrono::hours(12)};
    std::size_t maxSessions = 1'000;
};

/// The keys http.* as the service "connector/configuration" has them; the defaults when nobody serves that name.
/// Throws std::runtime_error for an address beyond loopback, which would need TLS.
CONNECTOR_API ServerSettings readServerSettings(Connector& connector);
CONNECTOR_API SessionLimits readSessionLimits(Connector& connector);
/// Whether the bearer token may be written to the discovery file.
CONNECTOR_API bool readTokenFileWanted(Connector& connector);

} // namespace connector::http
