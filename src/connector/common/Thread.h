#pragma once

#include <functional>
#include <string>
#include <thread>

#include "connector/Export.h"

namespace connector::common {

/// Starts a thread of the system. It has all signals blocked but those that its own faults raise (the host's handlers
/// stay with the host's threads), and carries the first 15 bytes of `name` in debuggers. `body` must not throw. Throws
/// std::system_error when there is no thread to be had.
CONNECTOR_API std::thread startThread(const std::string& name, std::function<void()> body);

/// Joins. A thread that would have to join itself is kept and joined by a later `startThread`, at the latest when the
/// library goes; it must be about to end. A thread that is not joinable is ignored.
CONNECTOR_API void joinThread(std::thread thread);

} // namespace connector::common
