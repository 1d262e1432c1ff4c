#pragma once

#include <string>
#include <string_view>

#include "platform/Export.h"

namespace fl::i18n {

/// Converts UTF-16 text to bytes of one encoding.
class VENDRA_PLATFORM_API codecvt_ustring_to_string
{
public:
    /// `encoding`: "UTF-8" or "US-ASCII" (letter case aside); others throw std::invalid_argument naming it.
    /// `substitute`: true puts a replacement character (U+FFFD, or "?" in US-ASCII) for what cannot be encoded; false
    /// makes the conversion throw std::range_error with the position.
    codecvt_ustring_to_string(const char* encoding, bool substitute);

    std::string operator()(std::u16string_view text) const;

private:
    enum class Encoding
    {
        utf8,
        ascii
    };
    Encoding encoding_;
    bool substitute_;
};

/// UTF-16 from UTF-8; each maximal invalid subpart becomes U+FFFD.
VENDRA_PLATFORM_API std::u16string utf8ToUtf16(std::string_view utf8);
/// UTF-8 from UTF-16; an unpaired surrogate becomes U+FFFD.
VENDRA_PLATFORM_API std::string utf16ToUtf8(std::u16string_view utf16);
/// UTF-8 with each maximal invalid subpart replaced by U+FFFD.
VENDRA_PLATFORM_API std::string toValidUtf8(std::string_view bytes);
VENDRA_PLATFORM_API bool isValidUtf8(std::string_view bytes) noexcept;
VENDRA_PLATFORM_API bool isValidUtf16(std::u16string_view units) noexcept;

} // namespace fl::i18n
