#include "platform/fl/i18n.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "platform/fl/utf8.h"

namespace fl::i18n {
namespace {

constexpr std::string_view kReplacementUtf8 = "\xEF\xBF\xBD";

struct Utf16Step
{
    char32_t codePoint;  ///< kReplacement when invalid
    std::uint8_t length; ///< units taken; at least 1
    bool valid;
};

Utf16Step decodeUtf16(const char16_t* at, const char16_t* end) noexcept
{
    const char16_t first = *at;
    if (first < 0xD800 || first > 0xDFFF)
        return {first, 1, true};
    if (first <= 0xDBFF && end - at >= 2 && at[1] >= 0xDC00 && at[1] <= 0xDFFF)
        return {0x10000u + ((first - 0xD800u) << 10) + (at[1] - 0xDC00u), 2, true};
    return {kReplacement, 1, false};
}

/// The end of the ASCII run that begins at `at`, found eight bytes at a time.
const char* skipAscii(const char* at, const char* end) noexcept
{
    for (; end - at >= 8; at += 8) {
        std::uint64_t word;
        std::memcpy(&word, at, sizeof word);
        if ((word & 0x8080808080808080u) != 0)
            break;
    }
    while (at != end && static_cast<unsigned char>(*at) < 0x80)
        ++at;
    return at;
}

/// The same for UTF-16, four units at a time.
const char16_t* skipAscii(const char16_t* at, const char16_t* end) noexcept
{
    for (; end - at >= 4; at += 4) {
        std::uint64_t word;
        std::memcpy(&word, at, sizeof word);
        if ((word & 0xFF80FF80FF80FF80u) != 0)
            break;
    }
    while (at != end && *at < 0x80)
        ++at;
    return at;
}

/// Copies the ASCII characters [at, end) to wider or narrower ones. Eight per turn, so that the compiler uses vectors.
template <class To, class From>
To* copyAscii(const From* at, const From* end, To* out) noexcept
{
    for (; end - at >= 8; at += 8, out += 8)
        for (int i = 0; i < 8; ++i)
            out[i] = static_cast<To>(at[i]);
    while (at != end)
        *out++ = static_cast<To>(*at++);
    return out;
}

std::size_t utf8Length(std::u16string_view text) noexcept
{
    const char16_t* at = text.data();
    const char16_t* const end = at + text.size();
    std::size_t length = 0;
    while (at != end) {
        const char16_t* const run = skipAscii(at, end);
        length += static_cast<std::size_t>(run - at);
        for (at = run; at != end && *at >= 0x80;) {
            const Utf16Step step = decodeUtf16(at, end);
            length += step.codePoint < 0x800 ? 2 : step.codePoint < 0x10000 ? 3 : 4;
            at += step.length;
        }
    }
    return length;
}

[[noreturn]] void failAt(std::size_t position, char16_t unit, const char* encoding)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string hex;
    for (int shift = 12; shift >= 0; shift -= 4)
        hex += kDigits[unit >> shift & 0xF];
    throw std::range_error("The UTF-16 unit 0x" + hex + " at position " + std::to_string(position) +
                           " cannot be encoded in " + encoding + ".");
}

std::string toAscii(std::u16string_view text, bool substitute)
{
    std::string result(text.size(), '\0');
    const char16_t* at = text.data();
    const char16_t* const end = at + text.size();
    char* out = result.data();
    while (at != end) {
        const char16_t* const run = skipAscii(at, end);
        out = copyAscii(at, run, out);
        at = run;
        if (at == end)
            break;
        if (!substitute)
            failAt(static_cast<std::size_t>(at - text.data()), *at, "US-ASCII");
        at += decodeUtf16(at, end).length;
        *out++ = '?';
    }
    result.resize(static_cast<std::size_t>(out - result.data()));
    return result;
}

/// Where the first unpaired surrogate stands, or the text's size.
std::size_t findInvalid(std::u16string_view units) noexcept
{
    const char16_t* at = units.data();
    const char16_t* const end = at + units.size();
    while (at != end) {
        const Utf16Step step = decodeUtf16(at, end);
        if (!step.valid)
            break;
        at += step.length;
    }
    return static_cast<std::size_t>(at - units.data());
}

/// Where the first invalid subpart stands, or the text's size.
std::size_t findInvalid(std::string_view bytes) noexcept
{
    const char* at = bytes.data();
    const char* const end = at + bytes.size();
    while ((at = skipAscii(at, end)) != end) {
        const Utf8Step step = decodeUtf8(at, end);
        if (!step.valid)
            break;
        at += step.length;
    }
    return static_cast<std::size_t>(at - bytes.data());
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) noexcept
{
    if (left.size() != right.size())
        return false;
    for (std::size_t i = 0; i < left.size(); ++i) {
        const auto upper = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
        if (upper(left[i]) != upper(right[i]))
            return false;
    }
    return true;
}

} // namespace

codecvt_ustring_to_string::codecvt_ustring_to_string(const char* encoding, bool substitute) : substitute_(substitute)
{
    const std::string_view name = encoding != nullptr ? encoding : "";
    if (equalsIgnoringCase(name, "UTF-8"))
        encoding_ = Encoding::utf8;
    else if (equalsIgnoringCase(name, "US-ASCII"))
        encoding_ = Encoding::ascii;
    else
        throw std::invalid_argument("Unknown encoding \"" + std::string(name) + "\": UTF-8 and US-ASCII are known.");
}

std::string codecvt_ustring_to_string::operator()(std::u16string_view text) const
{
    if (encoding_ == Encoding::ascii)
        return toAscii(text, substitute_);
    if (!substitute_)
        if (const std::size_t position = findInvalid(text); position != text.size())
            failAt(position, text[position], "UTF-8");
    return utf16ToUtf8(text);
}

std::u16string utf8ToUtf16(std::string_view utf8)
{
    std::u16string result(utf8.size(), u'\0'); // no sequence or subpart makes more units than it has bytes
    const char* at = utf8.data();
    const char* const end = at + utf8.size();
    char16_t* out = result.data();
    while (at != end) {
        const char* const run = skipAscii(at, end);
        out = copyAscii(at, run, out);
        for (at = run; at != end && static_cast<unsigned char>(*at) >= 0x80;) {
            const Utf8Step step = decodeUtf8(at, end);
            if (step.codePoint < 0x10000) {
                *out++ = static_cast<char16_t>(step.codePoint);
            } else {
                *out++ = static_cast<char16_t>(0xD800 + ((step.codePoint - 0x10000) >> 10));
                *out++ = static_cast<char16_t>(0xDC00 + ((step.codePoint - 0x10000) & 0x3FF));
            }
            at += step.length;
        }
    }
    result.resize(static_cast<std::size_t>(out - result.data()));
    return result;
}

std::string utf16ToUtf8(std::u16string_view utf16)
{
    std::string result(utf8Length(utf16), '\0');
    const char16_t* at = utf16.data();
    const char16_t* const end = at + utf16.size();
    char* out = result.data();
    while (at != end) {
        const char16_t* const run = skipAscii(at, end);
        out = copyAscii(at, run, out);
        for (at = run; at != end && *at >= 0x80;) {
            const Utf16Step step = decodeUtf16(at, end);
            out = putUtf8(out, step.codePoint);
            at += step.length;
        }
    }
    return result;
}

std::string toValidUtf8(std::string_view bytes)
{
    std::string result;
    result.reserve(bytes.size());
    while (!bytes.empty()) {
        const std::size_t valid = findInvalid(bytes);
        result.append(bytes.substr(0, valid));
        bytes.remove_prefix(valid);
        if (bytes.empty())
            break;
        result.append(kReplacementUtf8);
        bytes.remove_prefix(decodeUtf8(bytes.data(), bytes.data() + bytes.size()).length);
    }
    return result;
}

bool isValidUtf8(std::string_view bytes) noexcept { return findInvalid(bytes) == bytes.size(); }

bool isValidUtf16(std::u16string_view units) noexcept { return findInvalid(units) == units.size(); }

} // namespace fl::i18n
