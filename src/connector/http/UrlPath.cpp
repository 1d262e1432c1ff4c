#include "connector/http/UrlPath.h"

#include "connector/http/HttpText.h"
#include "platform/fl/i18n.h"

namespace connector::http {

namespace {

int hexValue(char c) noexcept
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool isDeviceName(std::string_view segment) noexcept
{
    const std::string_view stem = trimmed(segment.substr(0, segment.find('.')));
    for (std::string_view name : {"con", "prn", "aux", "nul", "conin$", "conout$"})
        if (equalsIgnoringCase(stem, name))
            return true;
    return stem.size() == 4 && stem[3] >= '0' && stem[3] <= '9' &&
           (equalsIgnoringCase(stem.substr(0, 3), "com") || equalsIgnoringCase(stem.substr(0, 3), "lpt"));
}

const char* checkSegments(std::string_view path) noexcept
{
    path.remove_prefix(1);
    while (!path.empty()) {
        const auto slash = path.find('/');
        const std::string_view segment = path.substr(0, slash);
        if (segment.empty())
            return "an empty segment";
        if (segment.back() == '.' || segment.back() == ' ')
            return "a segment that ends with a dot or a space";
        if (isDeviceName(segment))
            return "a device name";
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    }
    return nullptr;
}

} // namespace

const char* decodePath(std::string_view raw, std::string& decoded)
{
    decoded.clear();
    if (raw.empty() || raw.front() != '/')
        return "no leading slash";
    decoded.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size(); ++i) {
        char c = raw[i];
        if (c == '%') {
            const int high = i + 1 < raw.size() ? hexValue(raw[i + 1]) : -1;
            const int low = i + 2 < raw.size() ? hexValue(raw[i + 2]) : -1;
            if (high < 0 || low < 0)
                return "broken percent encoding";
            c = static_cast<char>(high * 16 + low);
            i += 2;
            if (c == '/')
                return "an encoded slash";
        }
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f)
            return "a control character";
        if (c == '\\')
            return "a backslash";
        if (c == ':')
            return "a colon";
        decoded += c;
    }
    if (!fl::i18n::isValidUtf8(decoded))
        return "text that is not UTF-8";
    return checkSegments(decoded);
}

} // namespace connector::http
