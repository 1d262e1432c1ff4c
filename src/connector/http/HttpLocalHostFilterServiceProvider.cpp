#include "connector/http/HttpLocalHostFilterServiceProvider.h"

#include <arpa/inet.h>

#include "connector/core/Connector.h"
#include "connector/http/HttpText.h"
#include "connector/http/WholeMatch.h"

namespace connector::http {

namespace {

constexpr const char* kAllowedHostsKey = "http.allowedHosts";

bool isLoopback(const std::string& address)
{
    in_addr four{};
    if (inet_pton(AF_INET, address.c_str(), &four) == 1)
        return (ntohl(four.s_addr) >> 24) == 127;
    in6_addr six{};
    if (inet_pton(AF_INET6, address.c_str(), &six) != 1)
        return false;
    return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
}

/// The port that a URL without one means.
int defaultPort(std::string_view scheme) noexcept { return scheme == "https" ? 443 : 80; }

/// Where the browser may be led to from elsewhere: a folder's page or an index page.
bool isEntryPage(std::string_view path) noexcept { return path.ends_with('/') || path.ends_with("/index.html"); }

/// What browsers of today say about who makes a request; older ones, and other clients, say nothing.
bool isFromForeignPage(const HttpRequest& request)
{
    const std::string* site = request.headers.find("Sec-Fetch-Site");
    if (!site || *site == "same-origin" || *site == "none")
        return false;
    // "same-site" includes every other port of this machine, so that it is no better than "cross-site".
    const bool navigation =
        request.headers.get("Sec-Fetch-Mode") == "navigate" && request.headers.get("Sec-Fetch-Dest") == "document";
    const bool reading = request.method == "GET" || request.method == "HEAD";
    return !(navigation && reading && isEntryPage(request.path));
}

} // namespace

/// The configured names, shared with the listener of the configuration.
class HttpLocalHostFilterServiceProvider::AllowedHosts
{
public:
    void set(const std::vector<std::string>& hosts)
    {
        auto parsed = std::make_shared<std::vector<Authority>>();
        for (const auto& host : hosts) {
            Authority authority;
            if (Authority::parse(host, authority))
                parsed->push_back(std::move(authority));
        }
        std::lock_guard lock(mutex_);
        hosts_ = std::move(parsed);
    }

    bool has(const Authority& asked) const
    {
        std::shared_ptr<const std::vector<Authority>> hosts;
        {
            std::lock_guard lock(mutex_);
            hosts = hosts_;
        }
        return hosts && std::any_of(hosts->begin(), hosts->end(), [&asked](const Authority& allowed) {
                   return allowed.host == asked.host && (allowed.port < 0 || allowed.port == asked.port);
               });
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const std::vector<Authority>> hosts_;
};

HttpLocalHostFilterServiceProvider::HttpLocalHostFilterServiceProvider(
    std::shared_ptr<configuration::Configuration> configuration, std::vector<boost::regex>&& whiteList,
    unsigned short status, std::string body)
    : configuration_(std::move(configuration)), whiteList_(std::move(whiteList)), status_(status),
      body_(std::move(body)), allowedHosts_(std::make_shared<AllowedHosts>())
{
    // The listener comes first, so that no change between the two is missed.
    listener_ = configuration_->addListener(
        kAllowedHostsKey, [hosts = allowedHosts_](const std::string&, const configuration::Value& value) {
            if (const auto* list = std::get_if<std::vector<std::string>>(&value))
                hosts->set(*list);
        });
    allowedHosts_->set(configuration_->getList(kAllowedHostsKey));
}

HttpLocalHostFilterServiceProvider::~HttpLocalHostFilterServiceProvider() { configuration_->removeListener(listener_); }

std::vector<boost::regex> HttpLocalHostFilterServiceProvider::defaultWhiteList()
{
    return {boost::regex("localhost"), boost::regex(R"(127\.0\.0\.1)"), boost::regex(R"(\[::1\])")};
}

MessageFuture HttpLocalHostFilterServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                                                             std::shared_ptr<Context>&& context)
{
    if (auto refused = check(*request))
        return makeReadyFuture(std::unique_ptr<Message>(std::move(refused)));
    const auto connector = context->connector();
    return connector->handle(std::move(request), std::move(rest), std::move(context));
}

std::unique_ptr<HttpResponse> HttpLocalHostFilterServiceProvider::check(const HttpRequest& request) const
{
    if (!isLoopback(request.peerAddress))
        return refusal(request, status_, body_);

    Authority asked;
    if (!Authority::parse(request.authority, asked))
        return refusal(request, 421, "The request names no host.");
    const bool configured = allowedHosts_->has(asked);
    const bool ownPort = request.localPort == 0 || asked.port < 0 || asked.port == request.localPort;
    const bool whiteListed = ownPort && std::any_of(whiteList_.begin(), whiteList_.end(), [&asked](const auto& host) {
                                 return matchesWhole(asked.host, host);
                             });
    if (!configured && !whiteListed)
        return refusal(request, 421, "This server does not answer for the host " + printable(request.authority) + ".");

    if (const std::string* origin = request.headers.find("Origin")) {
        const std::string text = toLower(*origin);
        const auto mark = text.find("://");
        const std::string scheme = text.substr(0, mark);
        Authority from;
        const bool isHttp = scheme == "http" || scheme == "https";
        // A proxy in front of a configured name may speak TLS where this server does not.
        const bool sameScheme = scheme == (request.secure ? "https" : "http") || (configured && isHttp);
        const bool same =
            mark != std::string::npos && sameScheme && request.headers.count("Origin") == 1 &&
            Authority::parse(std::string_view(text).substr(mark + 3), from) && from.host == asked.host &&
            (from.port < 0 ? defaultPort(scheme) : from.port) == (asked.port < 0 ? defaultPort(scheme) : asked.port);
        if (!same)
            return refusal(request, 403, "Requests from pages of another origin are refused.");
    }
    if (isFromForeignPage(request))
        return refusal(request, 403, "Requests from pages of another site are refused.");
    return nullptr;
}

} // namespace connector::http
