// Eight bytes of a file's size, little end first, then a Range header. Whatever it asks for, the parts lie within the
// file, none touches another, and all of them with what frames them are hardly more than the file.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "connector/http/content/Ranges.h"

using namespace connector::http::content;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

void checkSome(const RangeSelection& selection, std::uint64_t size)
{
    const auto& ranges = selection.ranges;
    require(!ranges.empty() && ranges.size() <= kMaxRanges);
    std::uint64_t left = size;
    for (const ByteRange& range : ranges) {
        require(range.length > 0 && range.first < size && range.length <= size - range.first);
        require(range.length <= left);
        left -= range.length;
        for (const ByteRange& other : ranges)
            require(&other == &range || other.first + other.length < range.first ||
                    range.first + range.length < other.first);
    }
    // What is left out of the file pays for the frames of all parts but one.
    require(left >= (ranges.size() - 1) * kPartOverhead);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t kSizeBytes = 8;
    if (size < kSizeBytes)
        return 0;
    std::uint64_t fileSize = 0;
    for (std::size_t i = 0; i < kSizeBytes; ++i)
        fileSize |= static_cast<std::uint64_t>(data[i]) << (8 * i);
    fileSize >>= 1; // as far as a file can go
    const std::string_view field(reinterpret_cast<const char*>(data) + kSizeBytes, size - kSizeBytes);

    const RangeSelection selection = selectRanges(field, fileSize);
    if (selection.kind == RangeSelection::Kind::some)
        checkSome(selection, fileSize);
    else
        require(selection.ranges.empty());
    return 0;
}
