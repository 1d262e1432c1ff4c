#include "connector/http/client/Connection.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "connector/http/HttpText.h"
#include "connector/http/client/Sockets.h"

namespace connector::http::client {

namespace {

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::HTTPSClientSession;

/// Has no host of its own, so that it never connects by itself.
template <class Session>
class SessionConnection final : public Connection, private Session
{
public:
    template <class... Arguments>
    explicit SessionConnection(const Poco::Net::StreamSocket& socket, Arguments&&... arguments)
        : Session(std::forward<Arguments>(arguments)...)
    {
        this->attachSocket(socket); // the session's own constructor for that does not take a connected TLS socket
        // Not the proxy that some code of the process may have set for all sessions.
        this->setProxyConfig(HTTPClientSession::ProxyConfig());
        this->setKeepAlive(false);
    }

    HTTPClientSession& session() override { return *this; }

    std::size_t read(char* buffer, std::size_t length) override
    {
        return static_cast<std::size_t>(Poco::Net::HTTPSession::read(buffer, static_cast<std::streamsize>(length)));
    }
};

using PlainConnection = SessionConnection<HTTPClientSession>;
using TlsConnection = SessionConnection<HTTPSClientSession>;

struct FreeAddresses
{
    void operator()(addrinfo* list) const noexcept { ::freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses lookUp(const Url& place, Waiter& waiter)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG | AI_NUMERICSERV;
    if (place.isAddress())
        hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const int code = ::getaddrinfo(place.bareHost().c_str(), std::to_string(place.port).c_str(), &hints, &list);
    Addresses found(code == 0 ? list : nullptr);
    waiter.check(); // nothing else ends a look-up early
    if (code != 0)
        waiter.fail("Cannot find the host " + place.host + ": " + ::gai_strerror(code));
    return found;
}

using SocketPtr = Poco::AutoPtr<PlainSocket>;

/// Null on failure, which errno then names.
SocketPtr connectTo(const addrinfo& address, const Url& place, std::chrono::milliseconds limit, Waiter& waiter)
{
    const int number = ::socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (number < 0)
        return nullptr;
    SocketPtr socket(new PlainSocket(number, waiter, place.endpoint()));
    int failure = ::connect(number, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    if (failure == EINPROGRESS) {
        socklen_t size = sizeof failure;
        if (!waiter.awaitFor(number, POLLOUT, limit))
            failure = ETIMEDOUT;
        else if (::getsockopt(number, SOL_SOCKET, SO_ERROR, &failure, &size) != 0)
            failure = errno;
    }
    if (failure == 0)
        return socket;
    socket = nullptr;
    errno = failure;
    return nullptr;
}

/// Tries the addresses of the host one after the other; together they have the time of one step.
SocketPtr connectTo(const Url& place, Waiter& waiter)
{
    const Addresses list = lookUp(place, waiter);
    std::vector<const addrinfo*> addresses;
    for (const auto* next = list.get(); next; next = next->ai_next)
        addresses.push_back(next);
    waiter.doing("connecting to " + place.endpoint());
    const auto end = Waiter::Clock::now() + waiter.step();
    int failure = 0;
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Waiter::Clock::now());
        if (auto socket = connectTo(*addresses[i], place, left / static_cast<int>(addresses.size() - i), waiter)) {
            const int on = 1;
            ::setsockopt(socket->sockfd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            return socket;
        }
        failure = errno;
    }
    if (failure == ETIMEDOUT && Waiter::Clock::now() >= end)
        waiter.timedOut();
    waiter.fail("Cannot connect to " + place.endpoint() + ": " + std::generic_category().message(failure));
}

/// Asks the proxy for a way to the server.
void openTunnel(SocketPtr& socket, const Url& url, const Proxy& proxy, Waiter& waiter)
{
    waiter.doing("asking the proxy " + proxy.url.endpoint() + " for " + url.endpoint());
    // The session and its socket object go; the connection stays with `socket`.
    PlainConnection connection{Poco::Net::StreamSocket(socket.duplicate())};
    HTTPClientSession& session = connection.session();
    HTTPRequest request(HTTPRequest::HTTP_CONNECT, url.endpoint(), HTTPRequest::HTTP_1_1);
    request.set("Host", url.endpoint());
    if (!proxy.authorization.empty())
        request.set("Proxy-Authorization", proxy.authorization);
    session.setKeepAlive(true);
    try {
        session.sendRequest(request).flush();
        HTTPResponse response;
        session.receiveResponse(response);
        if (response.getStatus() / 100 != 2)
            waiter.fail("The proxy " + proxy.url.endpoint() + " refuses the way to " + url.endpoint() + ": " +
                        std::to_string(response.getStatus()) + " " + printable(response.getReason()));
    } catch (const Poco::Exception& error) {
        waiter.rethrowFailure();
        waiter.fail("The proxy " + proxy.url.endpoint() + " gave no answer: " + error.displayText());
    }
    session.detachSocket();
}

} // namespace

std::unique_ptr<Connection> Connection::open(const Url& url, const std::optional<Proxy>& proxy, TlsClient& tls,
                                             Waiter& waiter)
{
    auto socket = connectTo(proxy ? proxy->url : url, waiter);
    if (!url.secure)
        return std::make_unique<PlainConnection>(Poco::Net::StreamSocket(socket.duplicate()));

    if (proxy)
        openTunnel(socket, url, *proxy, waiter);
    const auto context = tls.context();
    Poco::AutoPtr<TlsSocket> secured(new TlsSocket(socket.get(), context, waiter, url));
    secured->shakeHands();
    return std::make_unique<TlsConnection>(Poco::Net::StreamSocket(secured.duplicate()), context);
}

} // namespace connector::http::client
