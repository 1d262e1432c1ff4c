#include "platform/fl/log_text.h"

namespace fl::log_text {

void appendEscaped(std::string& line, std::string_view text)
{
    constexpr char kDigits[] = "0123456789abcdef";
    const auto appendCode = [&](unsigned char code) { line += {'\\', 'x', kDigits[code >> 4], kDigits[code & 15]}; };
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '\n')
            line += "\\n";
        else if (byte == '\r')
            line += "\\r";
        else if (byte == '\t')
            line += "\\t";
        else if (byte == '\\')
            line += "\\\\";
        else if (byte < 0x20 || byte == 0x7F)
            appendCode(byte);
        else if (byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0)
            appendCode(static_cast<unsigned char>(text[++i])); // U+0080 to U+009F
        else
            line += text[i];
    }
}

} // namespace fl::log_text
