#pragma once

#include <cstddef>
#include <cstdint>

namespace fl::i18n {

inline constexpr char32_t kReplacement = 0xFFFD;

struct Utf8Step
{
    char32_t codePoint;  ///< kReplacement when invalid
    std::uint8_t length; ///< bytes taken; at least 1
    bool valid;
};

/// The code point at `at`, or the maximal subpart that begins no well-formed sequence (Unicode 15 §3.9, table 3-7).
inline Utf8Step decodeUtf8(const char* at, const char* end) noexcept
{
    const auto byteAt = [at](std::size_t i) { return static_cast<std::uint8_t>(at[i]); };
    const std::uint8_t first = byteAt(0);
    if (first < 0x80)
        return {first, 1, true};

    std::uint8_t continuations = 0;
    std::uint8_t low = 0x80; // the range of the second byte keeps out overlong forms, surrogates and beyond U+10FFFF
    std::uint8_t high = 0xBF;
    char32_t codePoint = 0;
    if (first >= 0xC2 && first <= 0xDF) {
        continuations = 1;
        codePoint = first & 0x1Fu;
    } else if (first >= 0xE0 && first <= 0xEF) {
        continuations = 2;
        codePoint = first & 0x0Fu;
        if (first == 0xE0)
            low = 0xA0;
        else if (first == 0xED)
            high = 0x9F;
    } else if (first >= 0xF0 && first <= 0xF4) {
        continuations = 3;
        codePoint = first & 0x07u;
        if (first == 0xF0)
            low = 0x90;
        else if (first == 0xF4)
            high = 0x8F;
    } else {
        return {kReplacement, 1, false};
    }

    const std::size_t available = static_cast<std::size_t>(end - at);
    for (std::uint8_t i = 1; i <= continuations; ++i) {
        if (i >= available || byteAt(i) < low || byteAt(i) > high)
            return {kReplacement, i, false};
        codePoint = (codePoint << 6) | (byteAt(i) & 0x3Fu);
        low = 0x80;
        high = 0xBF;
    }
    return {codePoint, static_cast<std::uint8_t>(continuations + 1), true};
}

/// Writes the UTF-8 of a code point, 1 to 4 bytes, and answers what is behind it. Surrogates are not looked for.
inline char* putUtf8(char* out, char32_t codePoint) noexcept
{
    const auto put = [&out](char32_t byte) { *out++ = static_cast<char>(byte); };
    if (codePoint < 0x80) {
        put(codePoint);
    } else if (codePoint < 0x800) {
        put(0xC0 | codePoint >> 6);
        put(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        put(0xE0 | codePoint >> 12);
        put(0x80 | (codePoint >> 6 & 0x3F));
        put(0x80 | (codePoint & 0x3F));
    } else {
        put(0xF0 | codePoint >> 18);
        put(0x80 | (codePoint >> 12 & 0x3F));
        put(0x80 | (codePoint >> 6 & 0x3F));
        put(0x80 | (codePoint & 0x3F));
    }
    return out;
}

} // namespace fl::i18n
