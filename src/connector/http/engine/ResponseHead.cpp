#include "connector/http/engine/ResponseHead.h"

#include <array>

#include "connector/http/HttpText.h"

namespace connector::http::engine {

namespace {

bool isOfTheEngine(std::string_view name) noexcept
{
    for (std::string_view own : {"Content-Length", "Transfer-Encoding", "Date", "Connection", "Keep-Alive"})
        if (equalsIgnoringCase(name, own))
            return true;
    return false;
}

} // namespace

const std::string& DateText::at(std::time_t now)
{
    if (now != second_) {
        std::tm parts{};
        gmtime_r(&now, &parts);
        // Not strftime: names of days and months must not follow the host's locale.
        static constexpr std::array<const char*, 7> kDays{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
        static constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT",
                      kDays[static_cast<std::size_t>(parts.tm_wday)], parts.tm_mday,
                      kMonths[static_cast<std::size_t>(parts.tm_mon)], parts.tm_year + 1900, parts.tm_hour,
                      parts.tm_min, parts.tm_sec);
        text_ = text.data();
        second_ = now;
    }
    return text_;
}

bool hasBody(unsigned status) noexcept { return status >= 200 && status != 204 && status != 304; }

std::string writeHead(const HttpResponse& response, const std::string& date, const ResponseTerms& terms)
{
    std::string head;
    head.reserve(768);
    head += "HTTP/1.1 ";
    head += std::to_string(response.status);
    head += ' ';
    head += reasonPhrase(response.status);
    head += "\r\nDate: ";
    head += date;
    head += "\r\n";
    for (const auto& [name, value] : response.headers.fields()) {
        if (!isOfTheEngine(name))
            head.append(name).append(": ").append(value).append("\r\n");
    }
    if (hasBody(response.status)) {
        if (const auto length = response.contentLength())
            head.append("Content-Length: ").append(std::to_string(*length)).append("\r\n");
        else if (!terms.http10)
            head += "Transfer-Encoding: chunked\r\n";
    }
    if (terms.closing)
        head += "Connection: close\r\n";
    else if (terms.keepAliveAsked)
        head += "Connection: keep-alive\r\n";
    head += "\r\n";
    return head;
}

} // namespace connector::http::engine
