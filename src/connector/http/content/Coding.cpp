#include "connector/http/content/Coding.h"

#include <optional>

#include "connector/http/HttpText.h"

namespace connector::http::content {

namespace {

/// "q=0", "q=0.000". Whatever else stands there is no refusal.
bool isZeroWeight(std::string_view parameters) noexcept
{
    while (!parameters.empty()) {
        const auto semicolon = std::min(parameters.find(';'), parameters.size());
        const std::string_view parameter = trimmed(parameters.substr(0, semicolon));
        parameters.remove_prefix(std::min(semicolon + 1, parameters.size()));
        if (parameter.size() > 2 && equalsIgnoringCase(parameter.substr(0, 2), "q="))
            return parameter.find_first_not_of("0.", 2) == std::string_view::npos;
    }
    return false;
}

} // namespace

Codings acceptedCodings(const Headers& headers) noexcept
{
    std::optional<bool> brotli;
    std::optional<bool> gzip;
    bool others = false;
    for (const auto& [name, value] : headers.fields()) {
        if (!equalsIgnoringCase(name, "Accept-Encoding"))
            continue;
        std::string_view list = value;
        while (!list.empty()) {
            const auto comma = std::min(list.find(','), list.size());
            const std::string_view element = list.substr(0, comma);
            list.remove_prefix(std::min(comma + 1, list.size()));
            const auto semicolon = std::min(element.find(';'), element.size());
            const std::string_view coding = trimmed(element.substr(0, semicolon));
            const bool accepted = !isZeroWeight(element.substr(semicolon));
            if (equalsIgnoringCase(coding, "br"))
                brotli = accepted;
            else if (equalsIgnoringCase(coding, "gzip") || equalsIgnoringCase(coding, "x-gzip"))
                gzip = accepted;
            else if (coding == "*")
                others = accepted;
        }
    }
    return {brotli.value_or(others), gzip.value_or(others)};
}

} // namespace connector::http::content
