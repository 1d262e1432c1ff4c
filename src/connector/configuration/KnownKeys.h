#pragma once

#include <vector>

#include "connector/configuration/Configuration.h"

namespace connector::configuration {

/// All keys of the system, in name order.
const std::vector<Key>& knownKeys();

} // namespace connector::configuration
