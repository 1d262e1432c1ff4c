#pragma once

#include <string>
#include <unordered_map>

#include "platform/us/Any.h"

namespace us {

/// What a provider says about its service. Keys are looked up without regard to case; two keys that differ only in case
/// are refused.
using ServiceProperties = std::unordered_map<std::string, Any>;

} // namespace us
