#include "connector/http/client/Exchange.h"

#include <algorithm>
#include <array>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <string_view>

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/NetException.h>

#include "connector/http/HttpText.h"
#include "connector/http/client/BodyReader.h"

namespace connector::http::client {

namespace {

using namespace std::chrono_literals;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

constexpr int kMaxFields = 100;
constexpr int kMaxInterimAnswers = 10;

/// What frames a message belongs to this client.
constexpr std::array<std::string_view, 11> kOwnFields{
    "Accept-Encoding",  "Connection",        "Content-Length", "Expect", "Host", "Keep-Alive", "TE",
    "Proxy-Connection", "Transfer-Encoding", "Trailer",        "Upgrade"};
/// What lets in at one place and is nothing for another.
constexpr std::array<const char*, 3> kSecretFields{"Authorization", "Cookie", "Proxy-Authorization"};
constexpr std::array<const char*, 5> kBodyFields{"Content-Type", "Content-Encoding", "Content-Language",
                                                 "Content-Location", "Content-MD5"};

bool isRedirect(unsigned status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

void checkTime(std::chrono::milliseconds time, const char* name)
{
    if (time < 1ms || time > 24h)
        throw std::invalid_argument(std::string(name) + " must be between 1 ms and a day, not " +
                                    std::to_string(time.count()) + " ms.");
}

} // namespace

Exchange::Exchange(const HttpClientRequest& request, ProxySettings proxies, TlsClient& tls, Waiter& waiter)
    : request_(request), proxies_(std::move(proxies)), tls_(tls), waiter_(waiter), url_(Url::parse(request.url)),
      method_(request.method), headers_(request.headers)
{}

void Exchange::check(const HttpClientRequest& request)
{
    (void)Url::parse(request.url);
    if (!isToken(request.method) || request.method == "CONNECT" || request.method == "TRACE")
        throw std::invalid_argument("Not a method to send: \"" + printable(request.method) + "\"");
    for (const auto& [name, value] : request.headers.fields())
        for (const auto own : kOwnFields)
            if (equalsIgnoringCase(name, own))
                throw std::invalid_argument("The header " + name + " is set by the client itself.");
    checkTime(request.timeout, "timeout");
    checkTime(request.totalTimeout, "totalTimeout");
    if (request.maxRedirects > HttpClientRequest::kMostRedirects)
        throw std::invalid_argument("maxRedirects must be at most " +
                                    std::to_string(HttpClientRequest::kMostRedirects) + ", not " +
                                    std::to_string(request.maxRedirects) + ".");
    if (request.file && request.file->filename().empty())
        throw std::invalid_argument("Not the name of a file: \"" + request.file->string() + "\"");
}

HttpClientResponse Exchange::run()
{
    for (unsigned followed = 0;; ++followed) {
        const auto proxy = proxies_.forUrl(url_);
        const auto connection = Connection::open(url_, proxy, tls_, waiter_);
        ask(*connection, proxy);
        HTTPResponse head;
        receiveHead(*connection, head);
        const auto next = redirection(head);
        if (!next)
            return take(*connection, head);
        if (followed == request_.maxRedirects)
            throw std::runtime_error("More than " + std::to_string(request_.maxRedirects) + " redirects, the last by " +
                                     url_.shown());
        follow(*next, static_cast<unsigned>(head.getStatus()));
    }
}

void Exchange::ask(Connection& connection, const std::optional<Proxy>& proxy)
{
    waiter_.doing("sending the request to " + url_.shown());
    const bool viaProxy = proxy && !url_.secure;
    HTTPRequest request(method_, viaProxy ? url_.text() : url_.target, HTTPRequest::HTTP_1_1);
    request.set("Host", url_.authority());
    for (const auto& [name, value] : headers_.fields())
        request.add(name, value);
    request.set("Accept-Encoding", "identity");
    if (viaProxy && !proxy->authorization.empty())
        request.set("Proxy-Authorization", proxy->authorization);
    const std::string_view body = withBody_ ? std::string_view(request_.body) : std::string_view();
    if (!body.empty() || method_ == "POST" || method_ == "PUT" || method_ == "PATCH")
        request.setContentLength64(static_cast<Poco::Int64>(body.size()));

    sendFailure_.clear();
    try {
        std::ostream& stream = connection.session().sendRequest(request);
        stream.exceptions(std::ios::badbit);
        stream.write(body.data(), static_cast<std::streamsize>(body.size()));
        stream.flush();
    } catch (const std::exception& error) {
        // The server may have said why before it closed; the answer's head shows.
        waiter_.rethrowFailure();
        sendFailure_ = error.what();
    }
}

void Exchange::receiveHead(Connection& connection, HTTPResponse& head)
{
    waiter_.doing("waiting for the answer of " + url_.shown());
    try {
        for (int interim = 0;; ++interim) {
            head.setFieldLimit(kMaxFields);
            connection.session().receiveResponse(head);
            if (head.getStatus() >= 200)
                break;
            if (head.getStatus() == HTTPResponse::HTTP_SWITCHING_PROTOCOLS || interim == kMaxInterimAnswers)
                throw std::runtime_error("An answer of " + url_.shown() + " that nobody asked for: status " +
                                         std::to_string(head.getStatus()));
        }
    } catch (const Poco::Net::NoMessageException&) {
        waiter_.rethrowFailure();
        throw std::runtime_error(sendFailure_.empty()
                                     ? "There is no answer of " + url_.shown() + ": the server closed the connection"
                                     : sendFailure_);
    } catch (const Poco::Exception& error) {
        waiter_.rethrowFailure();
        throw std::runtime_error(sendFailure_.empty()
                                     ? "The answer of " + url_.shown() + " cannot be read: " + error.displayText()
                                     : sendFailure_);
    }
}

std::optional<Url> Exchange::redirection(const HTTPResponse& head) const
{
    const auto location = head.find("Location");
    if (!isRedirect(static_cast<unsigned>(head.getStatus())) || location == head.end() || request_.maxRedirects == 0)
        return std::nullopt;
    try {
        return url_.resolve(location->second);
    } catch (const std::invalid_argument& error) {
        throw std::runtime_error("Redirect by " + url_.shown() + " refused: " + error.what());
    }
}

void Exchange::follow(const Url& next, unsigned status)
{
    if (url_.secure && !next.secure)
        throw std::runtime_error("Redirect by " + url_.shown() + " refused, since it leaves TLS: " + next.shown());
    if ((status == 303 && method_ != "HEAD") || ((status == 301 || status == 302) && method_ == "POST")) {
        method_ = "GET";
        withBody_ = false;
        for (const char* name : kBodyFields)
            headers_.remove(name);
    }
    if (!url_.sameOrigin(next))
        for (const char* name : kSecretFields)
            headers_.remove(name);
    url_ = next;
}

HttpClientResponse Exchange::take(Connection& connection, const HTTPResponse& head)
{
    waiter_.doing("reading the answer of " + url_.shown());
    HttpClientResponse response;
    response.status = static_cast<unsigned>(head.getStatus());
    response.reason = head.getReason();
    response.url = url_.text();
    try {
        for (const auto& [name, value] : head)
            response.headers.add(name, value);
    } catch (const std::invalid_argument& error) {
        throw std::runtime_error("The answer of " + url_.shown() + " cannot be read: " + error.what());
    }

    const bool toFile = request_.file && response.status / 100 == 2;
    const auto sink = toFile ? BodySink::inFile(*request_.file) : BodySink::inMemory();
    const auto unlimited = toFile ? std::numeric_limits<std::uint64_t>::max() : HttpClientRequest::kMemoryBytes;
    if (method_ != "HEAD" && response.status != 204 && response.status != 304)
        BodyReader(connection, *sink, request_.maxBytes.value_or(unlimited), url_.shown()).read(head);
    waiter_.check(); // the last moment at which a file stays as it was
    sink->finish(response);
    return response;
}

} // namespace connector::http::client
