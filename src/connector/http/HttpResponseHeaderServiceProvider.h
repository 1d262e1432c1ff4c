#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/regex.hpp>

#include "connector/http/HttpServiceProvider.h"

namespace connector::http {

/// Adds header fields to answers by the path that was asked for. A field that the answer has already, or that an
/// earlier rule gave it, stays as it is.
class CONNECTOR_API HttpResponseHeaderServiceProvider final : public HttpServiceProvider
{
public:
    /// An expression that matches a decoded path whole, and the fields for such paths.
    using Rule = std::pair<boost::regex, std::multimap<std::string, std::string>>;

    explicit HttpResponseHeaderServiceProvider(std::vector<Rule>&& rules);

    /// A content security policy for our own pages, no sniffing, no referrer, no foreign embedding; files with a hash
    /// in their name are kept for a year, all else is asked for again.
    static std::vector<Rule> defaultHeaderRules();

    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;

private:
    using Rules = std::vector<Rule>;

    const std::shared_ptr<const Rules> rules_; ///< shared with answers on their way
};

} // namespace connector::http
