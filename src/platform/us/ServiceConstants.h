#pragma once

#include <string>

/// Names of the properties that the framework sets on every service or reads from it.
namespace us::ServiceConstants {

/// std::vector<std::string>: all interface ids of the service.
inline std::string OBJECTCLASS() { return "objectclass"; }
/// long: unique in the process, growing, never reused.
inline std::string SERVICE_ID() { return "service.id"; }
/// int, set by the provider; absent or of another type counts as 0. The highest wins.
inline std::string SERVICE_RANKING() { return "service.ranking"; }
/// std::string: always "singleton".
inline std::string SERVICE_SCOPE() { return "service.scope"; }
/// long: the bundle that registered the service.
inline std::string SERVICE_BUNDLEID() { return "service.bundleid"; }

} // namespace us::ServiceConstants
