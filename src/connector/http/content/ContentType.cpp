#include "connector/http/content/ContentType.h"

#include <algorithm>
#include <array>

namespace connector::http::content {

namespace {

// In order of the endings.
constexpr std::array kTypes{
    ContentType{"avif", "image/avif", false},
    ContentType{"bmp", "image/bmp", true},
    ContentType{"css", "text/css; charset=utf-8", true},
    ContentType{"csv", "text/csv; charset=utf-8", true},
    ContentType{"gif", "image/gif", false},
    ContentType{"gz", "application/gzip", false},
    ContentType{"htm", "text/html; charset=utf-8", true},
    ContentType{"html", "text/html; charset=utf-8", true},
    ContentType{"ico", "image/x-icon", true},
    ContentType{"jpeg", "image/jpeg", false},
    ContentType{"jpg", "image/jpeg", false},
    ContentType{"js", "text/javascript; charset=utf-8", true},
    ContentType{"json", "application/json; charset=utf-8", true},
    ContentType{"map", "application/json; charset=utf-8", true},
    ContentType{"md", "text/markdown; charset=utf-8", true},
    ContentType{"mjs", "text/javascript; charset=utf-8", true},
    ContentType{"mp3", "audio/mpeg", false},
    ContentType{"mp4", "video/mp4", false},
    ContentType{"ogg", "audio/ogg", false},
    ContentType{"otf", "font/otf", true},
    ContentType{"pdf", "application/pdf", false},
    ContentType{"png", "image/png", false},
    ContentType{"svg", "image/svg+xml; charset=utf-8", true},
    ContentType{"ttf", "font/ttf", true},
    ContentType{"txt", "text/plain; charset=utf-8", true},
    ContentType{"wasm", "application/wasm", true},
    ContentType{"wav", "audio/wav", false},
    ContentType{"webm", "video/webm", false},
    ContentType{"webmanifest", "application/manifest+json; charset=utf-8", true},
    ContentType{"webp", "image/webp", false},
    ContentType{"woff", "font/woff", false},
    ContentType{"woff2", "font/woff2", false},
    ContentType{"xml", "application/xml; charset=utf-8", true},
    ContentType{"zip", "application/zip", false},
};
static_assert(std::is_sorted(kTypes.begin(), kTypes.end(),
                             [](const ContentType& a, const ContentType& b) { return a.ending < b.ending; }));

constexpr ContentType kUnknown{"", "application/octet-stream", false};

} // namespace

const ContentType& contentTypeOf(std::string_view name) noexcept
{
    const auto mark = name.find_last_of("./");
    if (mark == std::string_view::npos || name[mark] == '/')
        return kUnknown;
    const std::string_view ending = name.substr(mark + 1);
    std::array<char, 16> lower{};
    if (ending.size() > lower.size())
        return kUnknown;
    std::transform(ending.begin(), ending.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    const std::string_view wanted(lower.data(), ending.size());
    const auto found =
        std::lower_bound(kTypes.begin(), kTypes.end(), wanted,
                         [](const ContentType& type, std::string_view text) { return type.ending < text; });
    return found != kTypes.end() && found->ending == wanted ? *found : kUnknown;
}

} // namespace connector::http::content
