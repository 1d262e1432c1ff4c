#include "connector/http/HttpMessage.h"

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <stdexcept>

#include <unistd.h>

#include "connector/http/HttpServiceProvider.h"
#include "connector/http/HttpText.h"
#include "connector/json/JsonText.h"

#include <Poco/JSON/Object.h>

namespace connector::http {

namespace {

void checkField(std::string_view name, std::string_view value)
{
    if (!isToken(name))
        throw std::invalid_argument("Not a header name: \"" + printable(name) + "\"");
    if (!isFieldValue(value))
        throw std::invalid_argument("Control character in the value of header " + std::string(name) + ": \"" +
                                    printable(value) + "\"");
}

} // namespace

void Headers::add(std::string name, std::string value)
{
    checkField(name, value);
    fields_.emplace_back(std::move(name), std::move(value));
}

void Headers::set(std::string name, std::string value)
{
    checkField(name, value);
    remove(name);
    fields_.emplace_back(std::move(name), std::move(value));
}

void Headers::remove(std::string_view name)
{
    std::erase_if(fields_, [name](const Field& field) { return equalsIgnoringCase(field.first, name); });
}

const std::string* Headers::find(std::string_view name) const noexcept
{
    for (const auto& [fieldName, value] : fields_)
        if (equalsIgnoringCase(fieldName, name))
            return &value;
    return nullptr;
}

std::string Headers::get(std::string_view name) const
{
    const std::string* value = find(name);
    return value ? *value : std::string();
}

std::size_t Headers::count(std::string_view name) const noexcept
{
    return static_cast<std::size_t>(std::count_if(
        fields_.begin(), fields_.end(), [name](const Field& field) { return equalsIgnoringCase(field.first, name); }));
}

MessageFuture HttpRequest::deliverTo(std::shared_ptr<HttpServiceProvider> provider, std::unique_ptr<Message>&& message,
                                     Address&& address, std::shared_ptr<Context>&& context)
{
    std::unique_ptr<HttpRequest> self(static_cast<HttpRequest*>(message.release()));
    return provider->handleHttp(std::move(self), std::move(address), std::move(context));
}

std::string textOf(ReceivedBody body)
{
    if (!body.file)
        return std::move(body.text);
    std::string text(static_cast<std::size_t>(body.size), '\0');
    for (std::size_t have = 0; have < text.size();) {
        const auto count =
            ::pread(body.file->number(), text.data() + have, text.size() - have, static_cast<off_t>(have));
        if (count > 0)
            have += static_cast<std::size_t>(count);
        else if (count == 0 || errno != EINTR)
            throw std::runtime_error("A request's body cannot be read back.");
    }
    return text;
}

Future<std::unique_ptr<HttpRequest>> readWhole(std::unique_ptr<HttpRequest>&& request, std::uint64_t maxBytes)
{
    if (const auto pending = std::move(request->pendingBody)) {
        auto held = std::make_shared<std::unique_ptr<HttpRequest>>(std::move(request));
        return pending->receive(maxBytes).then([held](Future<ReceivedBody> received) {
            (*held)->body = textOf(received.get());
            return std::move(*held);
        });
    }
    if (request->body.size() > maxBytes)
        return makeFailedFuture<std::unique_ptr<HttpRequest>>(HttpFault(413, "The request body is too large."));
    return makeReadyFuture(std::move(request));
}

std::optional<std::uint64_t> HttpResponse::contentLength() const noexcept
{
    if (producer)
        return std::nullopt;
    return std::accumulate(parts.begin(), parts.end(), static_cast<std::uint64_t>(body.size()),
                           [](std::uint64_t sum, const BodyPart& part) { return sum + part.size(); });
}

HttpResponse::HttpResponse(unsigned statusCode, std::string contentType, std::string content)
    : status(statusCode), body(std::move(content))
{
    headers.add("Content-Type", std::move(contentType));
}

const char* reasonPhrase(unsigned status) noexcept
{
    switch (status) {
    case 100:
        return "Continue";
    case 101:
        return "Switching Protocols";
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 202:
        return "Accepted";
    case 204:
        return "No Content";
    case 206:
        return "Partial Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 303:
        return "See Other";
    case 304:
        return "Not Modified";
    case 307:
        return "Temporary Redirect";
    case 308:
        return "Permanent Redirect";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 406:
        return "Not Acceptable";
    case 408:
        return "Request Timeout";
    case 409:
        return "Conflict";
    case 410:
        return "Gone";
    case 411:
        return "Length Required";
    case 412:
        return "Precondition Failed";
    case 413:
        return "Content Too Large";
    case 414:
        return "URI Too Long";
    case 415:
        return "Unsupported Media Type";
    case 416:
        return "Range Not Satisfiable";
    case 417:
        return "Expectation Failed";
    case 421:
        return "Misdirected Request";
    case 422:
        return "Unprocessable Content";
    case 423:
        return "Locked";
    case 426:
        return "Upgrade Required";
    case 428:
        return "Precondition Required";
    case 429:
        return "Too Many Requests";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 501:
        return "Not Implemented";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    case 504:
        return "Gateway Timeout";
    case 505:
        return "HTTP Version Not Supported";
    case 507:
        return "Insufficient Storage";
    default:
        return "";
    }
}

bool prefersJson(const Headers& headers) noexcept
{
    const std::string* accept = headers.find("Accept");
    return accept && containsIgnoringCase(*accept, "application/json");
}

std::unique_ptr<HttpResponse> refusal(bool asJson, unsigned status, std::string_view text)
{
    auto response = std::make_unique<HttpResponse>(status);
    if (asJson) {
        Poco::JSON::Object::Ptr object = new Poco::JSON::Object;
        object->set("error", std::string(text));
        response->headers.add("Content-Type", "application/json");
        response->body = json::write(object);
    } else {
        response->headers.add("Content-Type", "text/plain; charset=utf-8");
        response->body = text;
    }
    response->headers.add("X-Content-Type-Options", "nosniff");
    response->headers.add("Cache-Control", "no-store");
    return response;
}

std::unique_ptr<HttpResponse> refusal(const HttpRequest& request, unsigned status, std::string_view text)
{
    return refusal(prefersJson(request.headers), status, text);
}

} // namespace connector::http
