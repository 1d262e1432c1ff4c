#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "connector/Export.h"

namespace connector::http::content {

/// Bytes of a file, at least one.
struct ByteRange
{
    std::uint64_t first = 0;
    std::uint64_t length = 0;
};

/// What a Range header selects.
struct RangeSelection
{
    enum class Kind
    {
        whole, ///< the header is not for us: another unit, bad form, more than `kMaxRanges`
        some,
        unsatisfiable
    };
    Kind kind = Kind::whole;
    std::vector<ByteRange> ranges; ///< of kind some; in the order asked for, none touches another
};

inline constexpr std::size_t kMaxRanges = 16;
/// More than the text around one part of several; gaps up to this size are sent along.
inline constexpr std::uint64_t kPartOverhead = 192;

/// Reads "bytes=0-99,200-,-5" (RFC 9110 §14.1.2) for a file of `size` bytes. Ranges that overlap or lie so close that
/// two parts would cost more than the gap become one, so that all parts with `kPartOverhead` each are at most that much
/// more than the file.
CONNECTOR_API RangeSelection selectRanges(std::string_view field, std::uint64_t size);

} // namespace connector::http::content
