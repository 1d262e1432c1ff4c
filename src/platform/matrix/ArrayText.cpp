#include "platform/fl/i18n.h"
#include "platform/matrix/Array.h"

namespace matrix {
namespace {

/// The units of a char array in memory order; none for another class or null.
std::u16string_view unitsOf(const vxArray* array) noexcept
{
    const auto* const units = array != nullptr ? array->elements<char16_t>() : nullptr;
    return units != nullptr ? std::u16string_view(units->data(), units->size()) : std::u16string_view();
}

} // namespace

ArrayPtr create(const char* bytes, std::size_t length) { return create(std::string_view(bytes, length)); }

ArrayPtr create(std::string_view utf8) { return create(std::u16string_view(fl::i18n::utf8ToUtf16(utf8))); }

ArrayPtr create(std::u16string_view units)
{
    return create({units.empty() ? 0u : 1u, units.size()}, std::vector<char16_t>(units.begin(), units.end()));
}

std::string get_string(const vxArray* array) { return fl::i18n::utf16ToUtf8(unitsOf(array)); }

std::string get_string(const vxArray* array, const fl::i18n::codecvt_ustring_to_string& converter)
{
    return converter(unitsOf(array));
}

} // namespace matrix
