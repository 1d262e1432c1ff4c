#pragma once

#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::http {

/// The host name that browsers know this process by: "vendra-", 128 random bits and ".localhost", which browsers lead
/// to this machine by themselves. No server that had the port before has placed a service worker or stored anything
/// under it, and no other server is sent its cookies unless it learns the name. Made on first use. Throws
/// std::runtime_error when the operating system has no random bytes. Threads: any.
CONNECTOR_API const std::string& browserHost();

/// Whether `host`, in lower case and without port, is that name; in a time that tells nothing about it.
CONNECTOR_API bool isBrowserHost(std::string_view host);

} // namespace connector::http
