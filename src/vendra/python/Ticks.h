#pragma once

#include <chrono>
#include <cstdint>

namespace vendra::python {

/// The processor's clock, for intervals that need not be exact: reading it costs a tenth of printing a line, and a
/// third of reading the system's.
inline std::uint64_t ticks() noexcept
{
#if defined(__x86_64__)
    return __builtin_ia32_rdtsc();
#else
    return 3 * static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
}

/// About.
inline constexpr std::uint64_t kTicksPerMicrosecond = 3'000;

} // namespace vendra::python
