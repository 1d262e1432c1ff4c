#pragma once

#include <string>

namespace connector::http::engine {

/// What of a request's head a WebSocket handshake needs.
struct UpgradeAsked
{
    std::string target;
    std::string host;
    std::string key;
    std::string extensions;
};

} // namespace connector::http::engine
