#pragma once

#include <vector>

#include <boost/regex.hpp>

#include "connector/configuration/Configuration.h"
#include "connector/http/HttpServiceProvider.h"

namespace connector::http {

/// Lets through what comes from this machine or a peer of http.allowedPeers, was meant for this server, and was not
/// sent by a foreign web page; see docs/http.md for the rules. Everything else is answered here:
///   another peer                                               the constructor's status and body
///   a Host that is neither the browsers' name of this process, 421
///   nor in the white list, with the port in use, nor allowed
///   a foreign or "null" Origin, or a request that another      403
///   site's page makes, other than by leading to an entry page
class CONNECTOR_API HttpLocalHostFilterServiceProvider final : public HttpServiceProvider
{
public:
    /// `whiteList`: hosts in lower case, without port, IPv6 in brackets; matched whole. Key http.allowedHosts adds
    /// "name" (with any port) and "name:port".
    HttpLocalHostFilterServiceProvider(std::shared_ptr<configuration::Configuration> configuration,
                                       std::vector<boost::regex>&& whiteList, unsigned short status, std::string body);
    ~HttpLocalHostFilterServiceProvider() override;

    /// localhost, 127.0.0.1 and [::1].
    static std::vector<boost::regex> defaultWhiteList();

    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    class Allowed;

    /// The answer, or null to let the request on.
    std::unique_ptr<HttpResponse> check(HttpRequest& request) const;

    const std::shared_ptr<configuration::Configuration> configuration_;
    const std::vector<boost::regex> whiteList_;
    const unsigned short status_;
    const std::string body_;
    const std::shared_ptr<Allowed> allowed_;
    configuration::Configuration::ListenerId listener_ = 0;
};

} // namespace connector::http
