#include "connector/http/engine/ResponseHead.h"

#include "connector/http/HttpText.h"
#include "connector/http/content/HttpDate.h"

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
        text_ = content::formatHttpDate(now);
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
