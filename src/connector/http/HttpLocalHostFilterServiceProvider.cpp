#include "connector/http/HttpLocalHostFilterServiceProvider.h"

#include <arpa/inet.h>

#include "connector/common/Log.h"
#include "connector/core/Connector.h"
#include "connector/http/BrowserHost.h"
#include "connector/http/HttpText.h"
#include "connector/http/PeerList.h"
#include "connector/http/WholeMatch.h"

namespace connector::http {

namespace {

constexpr const char* kAllowedHostsKey = "http.allowedHosts";
constexpr const char* kAllowedPeersKey = "http.allowedPeers";

bool isThisMachine(const std::string& address)
{
    if (address == "unix")
        return true;
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

/// Whether the request asks for the port that it came in on. Browsers and tools leave out the scheme's own port only.
bool namesOwnPort(const HttpRequest& request, const Authority& asked)
{
    if (request.localPort == 0 || (asked.port < 0 && request.peerAddress == "unix"))
        return true;
    return request.localPort == (asked.port < 0 ? defaultPort(request.secure ? "https" : "http") : asked.port);
}

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

/// What the configuration allows besides this machine, shared with its listener.
class HttpLocalHostFilterServiceProvider::Allowed
{
public:
    /// Takes over what the configuration says now under that key, in whatever order this is called by whom.
    void update(const configuration::Configuration& configuration, const std::string& key)
    {
        std::lock_guard updating(updateMutex_);
        if (key == kAllowedHostsKey)
            replace(hosts_, parsedHosts(configuration.getList(key)));
        else if (key == kAllowedPeersKey)
            replace(peers_, parsedPeers(configuration.getList(key)));
    }

    bool hasHost(const Authority& asked) const
    {
        const auto hosts = current(hosts_);
        return std::any_of(hosts->begin(), hosts->end(), [&asked](const Authority& allowed) {
            return allowed.host == asked.host && (allowed.port < 0 || allowed.port == asked.port);
        });
    }

    bool hasPeer(const std::string& address) const { return current(peers_)->has(address); }

private:
    using Hosts = std::vector<Authority>;

    static std::shared_ptr<const Hosts> parsedHosts(const std::vector<std::string>& hosts)
    {
        auto parsed = std::make_shared<Hosts>();
        for (const auto& host : hosts) {
            Authority authority;
            if (Authority::parse(host, authority))
                parsed->push_back(std::move(authority));
            else
                logBad(kAllowedHostsKey, host, "is no host");
        }
        return parsed;
    }

    static std::shared_ptr<const PeerList> parsedPeers(const std::vector<std::string>& peers)
    {
        auto parsed = std::make_shared<PeerList>();
        for (const auto& peer : peers)
            if (!parsed->add(peer))
                logBad(kAllowedPeersKey, peer, "is neither an address nor a network");
        return parsed;
    }

    static void logBad(const char* key, const std::string& entry, const char* problem)
    {
        common::log("connector.http", common::LogLevel::warning,
                    std::string(key) + ": \"" + printable(entry) + "\" " + problem + " and is left out.");
    }

    template <class T>
    void replace(std::shared_ptr<const T>& member, std::shared_ptr<const T> value)
    {
        std::lock_guard lock(mutex_);
        member = std::move(value);
    }

    template <class T>
    std::shared_ptr<const T> current(const std::shared_ptr<const T>& member) const
    {
        std::lock_guard lock(mutex_);
        return member;
    }

    std::mutex updateMutex_;
    mutable std::mutex mutex_;
    std::shared_ptr<const Hosts> hosts_ = std::make_shared<Hosts>();
    std::shared_ptr<const PeerList> peers_ = std::make_shared<PeerList>();
};

HttpLocalHostFilterServiceProvider::HttpLocalHostFilterServiceProvider(
    std::shared_ptr<configuration::Configuration> configuration, std::vector<boost::regex>&& whiteList,
    unsigned short status, std::string body)
    : configuration_(std::move(configuration)), whiteList_(std::move(whiteList)), status_(status),
      body_(std::move(body)), allowed_(std::make_shared<Allowed>())
{
    // The listener comes first, so that no change between the two is missed.
    listener_ = configuration_->addListener(
        {}, [allowed = allowed_, source = configuration_.get()](const std::string& name, const auto&) {
            allowed->update(*source, name); // it lives: it is the caller
        });
    for (const char* key : {kAllowedHostsKey, kAllowedPeersKey})
        allowed_->update(*configuration_, key);
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

std::unique_ptr<HttpResponse> HttpLocalHostFilterServiceProvider::check(HttpRequest& request) const
{
    if (!isThisMachine(request.peerAddress) && !allowed_->hasPeer(request.peerAddress))
        return refusal(request, status_, body_);

    Authority asked;
    if (!Authority::parse(request.authority, asked))
        return refusal(request, 421, "The request names no host.");
    const bool configured = allowed_->hasHost(asked);
    // Whoever knows the process's own name was told it by us. Its port may be that of the near end of a tunnel.
    const bool own = isBrowserHost(asked.host);
    const bool whiteListed = std::any_of(whiteList_.begin(), whiteList_.end(),
                                         [&asked](const auto& host) { return matchesWhole(asked.host, host); });
    if (!configured && !own && !(whiteListed && namesOwnPort(request, asked)))
        return refusal(request, 421,
                       "This server does not answer for the host " + printable(request.authority) + "." +
                           (whiteListed ? " Through a tunnel, use the same port at both ends." : ""));
    request.sharedHost = whiteListed && !configured;

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
