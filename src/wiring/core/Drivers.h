#pragma once

#include <array>
#include <string_view>

namespace wiring {

/// A named step of the start or of the teardown. A step whose group is not built yet has no procedure and runs nothing.
struct Step
{
    std::string_view name;
    void (*run)() = nullptr;
};

/// The installers in the order of the start, and the groups in the order of the teardown, which is not its reverse.
extern const std::array<Step, 29> startSteps;
extern const std::array<Step, 29> teardownGroups;

/// Captures the host's interpreter engine and runs the installers. An exception of one ends the start where it
/// happened; nothing is rolled back. Interpreter thread, under the module lock.
void startServicesManually();

/// Removes every provider, unregisters the registry and empties the slots group by group; the engine's last. What was
/// done is not done again: a stop that an exception ended is repeated from there, and one is possible after the host
/// has ended its micro-services framework. Interpreter thread.
void stopServicesManually();

/// The same without a word, and without letting the engine go: for what a start left that failed half way.
void discardServices();

} // namespace wiring
