#pragma once

#include <array>
#include <cstddef>

namespace vendra::python {

inline constexpr std::size_t kSupportFiles = 9;

/// The texts of support/, part of the executable. They run one after the other in one namespace.
extern const std::array<const char*, kSupportFiles> kSupportSources;

/// The part of the module `connector` that is written in the language itself.
extern const char* const kBusSource;

} // namespace vendra::python
