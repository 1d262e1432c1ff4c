#pragma once

#include <string>

#include "connector/core/Context.h"

namespace connector::engine_tasks {

/// Who asks for a task, as interrupts tell clients apart.
struct Client
{
    std::string name; ///< rqe::Task::client
    std::string kind; ///< for people: "a browser"
};

/// All requests in one HTTP session are one client's. Programs that come without one, with the token, are one client
/// together, and so are parts of this process: nothing tells their requests apart.
Client clientOf(const Context& context);
/// The client of an HTTP session.
Client clientOfSession(const std::string& httpSessionId);

} // namespace connector::engine_tasks
