#pragma once

#include <ctime>
#include <string>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"

namespace connector::http::engine {

/// "Sun, 06 Nov 1994 08:49:37 GMT", made anew once a second. One thread.
class CONNECTOR_API DateText
{
public:
    const std::string& at(std::time_t now);

private:
    std::time_t second_ = -1;
    std::string text_;
};

/// Whether responses of this status have a body at all.
bool hasBody(unsigned status) noexcept;

/// How a response is sent.
struct ResponseTerms
{
    bool closing = false;        ///< the connection's last response
    bool keepAliveAsked = false; ///< by an HTTP/1.0 client
    bool withoutBody = false;    ///< the request was HEAD
    bool http10 = false;         ///< the client knows no chunks
};

/// The head of a response up to and with the empty line. Content-Length, Transfer-Encoding, Date and Connection of the
/// response itself are ignored.
CONNECTOR_API std::string writeHead(const HttpResponse& response, const std::string& date, const ResponseTerms& terms);

} // namespace connector::http::engine
