#pragma once

#include <cstddef>

namespace connector::http::engine {

/// How many of `wanted` connections the process has descriptors for, when a quarter of its descriptors is left to
/// everything else. Raises the soft limit as far as that needs and the hard limit allows.
std::size_t affordableConnections(std::size_t wanted);

} // namespace connector::http::engine
