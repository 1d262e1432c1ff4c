#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::common {

/// Random bytes of the operating system as lower-case hexadecimal digits. Throws std::runtime_error when it has none.
CONNECTOR_API std::string randomHex(std::size_t bytes);

/// The 32 bytes of SHA-256.
CONNECTOR_API std::string sha256(std::string_view bytes);

/// Whether two digests of one length are equal, in a time that does not depend on where they differ.
CONNECTOR_API bool equalDigests(const std::string& left, const std::string& right);

} // namespace connector::common
