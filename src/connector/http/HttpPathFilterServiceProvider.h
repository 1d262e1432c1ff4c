#pragma once

#include <string>
#include <vector>

#include <boost/regex.hpp>

#include "connector/http/HttpServiceProvider.h"

namespace connector::http {

/// Lets only requests on whose decoded path one of the allowed expressions matches whole; the others get a fixed
/// answer.
class CONNECTOR_API HttpPathFilterServiceProvider final : public HttpServiceProvider
{
public:
    /// `status` and `body` (plain text) answer what is not allowed.
    HttpPathFilterServiceProvider(std::vector<boost::regex>&& whiteList, unsigned short status, std::string body);

    /// Folders and files of the kinds that pages are made of; nothing whose name, or whose folder's, begins with a dot.
    static std::vector<boost::regex> defaultWhiteList();

    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    bool isAllowed(const std::string& path) const;

    const std::vector<boost::regex> whiteList_;
    const unsigned short status_;
    const std::string body_;
};

} // namespace connector::http
