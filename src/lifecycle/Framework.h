#pragma once

/// The connector framework's life in this process: stopped at first, started by the first builtin that needs it.
namespace lifecycle {

/// Chooses the micro-services container instead of the manual wiring; fixed when the module is built.
inline constexpr bool kContainerEnabled = false;

/// Starts the framework unless it is started. An exception leaves it stopped, and the next call tries the whole start
/// again. Under the module lock.
void ensureStarted();

/// Stops the framework if it is started. Under the module lock, or from the host's shutdown, when no builtin runs.
void stop();

/// Throws std::runtime_error "CppMicroServices is not enabled so this method isn't supported." unless the container is
/// enabled.
void requireContainer();

} // namespace lifecycle
