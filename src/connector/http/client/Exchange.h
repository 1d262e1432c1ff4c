#pragma once

#include <optional>

#include <Poco/Net/HTTPResponse.h>

#include "connector/http/HttpClientMessages.h"
#include "connector/http/client/Connection.h"

namespace connector::http::client {

/// Carries out one request, redirects included. Used by one thread, which it blocks.
class Exchange
{
public:
    Exchange(const HttpClientRequest& request, ProxySettings proxies, TlsClient& tls, Waiter& waiter);

    /// Throws std::invalid_argument for a request that must not be sent.
    static void check(const HttpClientRequest& request);

    /// Throws std::runtime_error, or std::invalid_argument for a redirect to what is not to be asked.
    HttpClientResponse run();

private:
    void ask(Connection& connection, const std::optional<Proxy>& proxy);
    void receiveHead(Connection& connection, Poco::Net::HTTPResponse& head);
    std::optional<Url> redirection(const Poco::Net::HTTPResponse& head) const;
    void follow(const Url& next, unsigned status);
    HttpClientResponse take(Connection& connection, const Poco::Net::HTTPResponse& head);

    const HttpClientRequest& request_;
    const ProxySettings proxies_;
    TlsClient& tls_;
    Waiter& waiter_;
    Url url_;
    std::string method_;
    Headers headers_;
    bool withBody_ = true;
    std::string sendFailure_;
};

} // namespace connector::http::client
