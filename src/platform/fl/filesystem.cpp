#include "platform/fl/filesystem.h"

#include <dlfcn.h>

#include <cstdlib>

#include "platform/fl/i18n.h"

namespace fl::filesystem {
namespace {

constexpr wchar_t kSeparator = L'/';

/// Its address tells which library this code was loaded from.
constexpr char kAnchor = 0;

/// The parent of the "lib" folder that holds this library, else empty.
wpath installPathOfLibrary()
{
    Dl_info info{};
    if (dladdr(&kAnchor, &info) == 0 || info.dli_fname == nullptr)
        return {};
    std::error_code unresolved;
    const std::filesystem::path library = std::filesystem::canonical(info.dli_fname, unresolved);
    if (unresolved || library.parent_path().filename() != "lib")
        return {};
    return fromNative(library.parent_path().parent_path());
}

std::u16string toUtf16(const wpath& path)
{
    std::u16string units;
    units.reserve(path.size());
    for (const wchar_t character : path) {
        const auto codePoint = static_cast<char32_t>(character);
        if (codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            units += char16_t{0xFFFD};
        } else if (codePoint >= 0x10000) {
            units += static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10));
            units += static_cast<char16_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
        } else {
            units += static_cast<char16_t>(codePoint);
        }
    }
    return units;
}

} // namespace

wpath get_install_path()
{
    const char* const root = std::getenv("VENDRA_ROOT");
    const wpath path = root != nullptr && *root != '\0' ? fromNative(root) : installPathOfLibrary();
    return detail::make_native_form(path);
}

wpath detail::concatenate_pathname(const wpath& base, const wpath& piece)
{
    const std::size_t begin = piece.find_first_not_of(kSeparator);
    if (begin == wpath::npos)
        return base;
    if (base.empty())
        return piece.substr(begin);
    const std::size_t last = base.find_last_not_of(kSeparator);
    return base.substr(0, last == wpath::npos ? 0 : last + 1) + kSeparator + piece.substr(begin);
}

wpath detail::make_native_form(const wpath& path)
{
    wpath result;
    result.reserve(path.size());
    for (const wchar_t character : path)
        if (character != kSeparator || result.empty() || result.back() != kSeparator)
            result += character;
    if (result.size() > 1 && result.back() == kSeparator)
        result.pop_back();
    return result;
}

std::filesystem::path toNative(const wpath& path) { return i18n::utf16ToUtf8(toUtf16(path)); }

wpath fromNative(const std::filesystem::path& path)
{
    const std::u16string units = i18n::utf8ToUtf16(path.native()); // well-formed, so surrogates come in pairs
    wpath result;
    result.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        char32_t codePoint = units[i];
        if (codePoint >= 0xD800 && codePoint <= 0xDBFF)
            codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (units[++i] - 0xDC00u);
        result += static_cast<wchar_t>(codePoint);
    }
    return result;
}

} // namespace fl::filesystem
