#include "connector/http/BrowserHost.h"

#include "connector/common/Secret.h"

namespace connector::http {

const std::string& browserHost()
{
    static const std::string name = "vendra-" + common::randomHex(16) + ".localhost";
    return name;
}

bool isBrowserHost(std::string_view host)
{
    static const std::string digest = common::sha256(browserHost());
    return host.size() == browserHost().size() && common::equalDigests(common::sha256(host), digest);
}

} // namespace connector::http
