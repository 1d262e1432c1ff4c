#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "connector/core/Context.h"

namespace connector::container::v1 {

/// A message type of a service that has no message map of its own.
struct StandingMessage
{
    const char* type;
    const char* service;
    bool manages = false; ///< only for clients that may manage the connector
};

const std::vector<StandingMessage>& standingMessages();

/// Throws the fault "forbidden" unless `security.clientsManage` is set. Asks the configuration, which answers at once.
void requireManagement(std::string_view type, const Context& context);

} // namespace connector::container::v1
