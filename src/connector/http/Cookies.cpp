#include "connector/http/Cookies.h"

#include "connector/http/HttpText.h"

namespace connector::http {

std::vector<std::string_view> cookieValues(const Headers& headers, std::string_view name)
{
    std::vector<std::string_view> values;
    for (const auto& [fieldName, fieldValue] : headers.fields()) {
        if (!equalsIgnoringCase(fieldName, "Cookie"))
            continue;
        std::string_view left = fieldValue;
        while (!left.empty()) {
            const auto end = left.find(';');
            const std::string_view pair = left.substr(0, end);
            left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);
            const auto equals = pair.find('=');
            if (equals == std::string_view::npos || trimmed(pair.substr(0, equals)) != name)
                continue;
            std::string_view value = trimmed(pair.substr(equals + 1));
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
                value = value.substr(1, value.size() - 2);
            values.push_back(value);
        }
    }
    return values;
}

std::string cookieNameOfPort(std::string_view name, std::uint16_t port)
{
    return port == 0 ? std::string(name) : std::string(name) + "_" + std::to_string(port);
}

} // namespace connector::http
