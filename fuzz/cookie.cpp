// Cookie fields of one request, one per line. Whatever they hold, the values read from them are pieces of the input
// without a semicolon, few, and found again when they are written plainly.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "connector/http/Cookies.h"
#include "connector/http/HttpText.h"

using namespace connector::http;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

/// As the request reader makes them: without control characters, trimmed.
Headers cookieFields(std::string_view bytes)
{
    Headers headers;
    while (!bytes.empty()) {
        const auto end = bytes.find('\n');
        const auto line = trimmed(bytes.substr(0, end));
        if (isFieldValue(line))
            headers.add("cookie", std::string(line));
        bytes.remove_prefix(end == std::string_view::npos ? bytes.size() : end + 1);
    }
    return headers;
}

bool liesWithin(std::string_view value, const Headers& headers)
{
    for (const auto& [name, text] : headers.fields())
        if (value.data() >= text.data() && value.data() + value.size() <= text.data() + text.size())
            return true;
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Headers headers = cookieFields({reinterpret_cast<const char*>(data), size});
    for (const std::string_view name : {"VENDRAACCESS_8080", "a", ""}) {
        const auto values = cookieValues(headers, name);
        require(values.size() <= size);
        for (const auto value : values) {
            require(value.empty() || liesWithin(value, headers));
            require(value.find(';') == std::string_view::npos);
            Headers plain;
            plain.add("Cookie", std::string(name) + "=\"" + std::string(value) + "\"");
            const auto again = cookieValues(plain, name);
            require(again.size() == 1 && again.front() == value);
        }
    }
    return 0;
}
