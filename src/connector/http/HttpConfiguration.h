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
/// Makes the installation's key and certificate where they are asked for and missing. Throws std::runtime_error for an
/// address beyond loopback without TLS and an access key, and when there is no certificate to be had.
CONNECTOR_API ServerSettings readServerSettings(Connector& connector);
CONNECTOR_API SessionLimits readSessionLimits(Connector& connector);
/// Whether the bearer token may be written to the discovery file.
CONNECTOR_API bool readTokenFileWanted(Connector& connector);

} // namespace connector::http
