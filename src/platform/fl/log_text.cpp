#include "platform/fl/log_text.h"

#include <cstdio>
#include <ctime>

#include "platform/fl/i18n.h"

namespace fl::log_text {

namespace {

/// `most`, or up to three less where a character would be cut.
std::size_t wholeCharacters(std::string_view text, std::size_t most) noexcept
{
    if (text.size() <= most)
        return text.size();
    for (std::size_t end = most; most - end <= 3; --end) {
        if ((static_cast<unsigned char>(text[end]) & 0xC0) != 0x80)
            return end;
        if (end == 0)
            break;
    }
    return most;
}

} // namespace

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

void appendShortened(std::string& line, std::string_view text, std::size_t maxBytes)
{
    const auto kept = text.substr(0, wholeCharacters(text, maxBytes));
    if (i18n::isValidUtf8(kept))
        appendEscaped(line, kept);
    else
        appendEscaped(line, i18n::toValidUtf8(kept));
    if (kept.size() < text.size())
        line += " … (" + std::to_string(text.size() - kept.size()) + " bytes more)";
}

std::string timeText(std::chrono::system_clock::time_point time)
{
    using std::chrono::floor;
    const auto milliseconds = floor<std::chrono::milliseconds>(time);
    const auto seconds = floor<std::chrono::seconds>(time);
    const std::time_t calendar = std::chrono::system_clock::to_time_t(seconds);
    std::tm parts{};
    gmtime_r(&calendar, &parts);
    char text[48];
    const auto length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>((milliseconds - seconds).count()) % 1'000);
    return std::string(text, length) + fraction;
}

} // namespace fl::log_text
