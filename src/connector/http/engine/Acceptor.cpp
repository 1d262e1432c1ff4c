#include "connector/http/engine/Acceptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>

#include "connector/common/FileDescriptor.h"
#include "connector/common/Log.h"

namespace connector::http::engine {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

/// Connections beyond the limit that may be told so at a time; more are dropped.
constexpr std::uint64_t kMaxTurnedAway = 64;
constexpr std::chrono::milliseconds kPauseAfterFailure{100};
/// The share of a processor from which on a loop gets no more connections while another has less to do.
constexpr double kBusy = 0.85;
constexpr int kFreePortAttempts = 10;
/// Before clients that are there get their turn.
constexpr int kMostAtOnce = 16;

std::string placeText(const std::string& address, std::uint16_t port)
{
    const bool bracketed = address.find(':') != std::string::npos;
    return (bracketed ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

/// Clients of one loop reach each other without waking a thread, which costs more than most messages do: the first loop
/// takes every connection until it has enough to do.
const std::shared_ptr<Loop>& leastBurdened(const std::vector<std::shared_ptr<Loop>>& loops)
{
    const auto idle = std::find_if(loops.begin(), loops.end(), [](const auto& loop) { return loop->load() < kBusy; });
    return idle != loops.end() ? *idle
                               : *std::min_element(loops.begin(), loops.end(), [](const auto& one, const auto& other) {
                                     return one->load() < other->load();
                                 });
}

/// Where a stranger can leave for a connection beyond the limit.
const std::shared_ptr<Loop>& withMostStrangers(const std::vector<std::shared_ptr<Loop>>& loops)
{
    return *std::max_element(loops.begin(), loops.end(), [](const auto& one, const auto& other) {
        return one->strangers().count() < other->strangers().count();
    });
}

/// Not inherited by child processes from its first moment on, which is more than Asio does.
int openSocket(int family) { return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

[[noreturn]] void fail(const std::string& place, const std::string& cause)
{
    throw std::runtime_error("Cannot listen on " + place + ": " + cause);
}

/// Whether somebody listens there.
bool isAlive(const asio::local::stream_protocol::endpoint& endpoint)
{
    const common::FileDescriptor probe(openSocket(AF_UNIX));
    const int result = ::connect(probe.number(), endpoint.data(), static_cast<socklen_t>(endpoint.size()));
    return result == 0 || errno == EAGAIN; // a full backlog
}

bool hasIpv6Loopback()
{
    const tcp::endpoint endpoint(asio::ip::address_v6::loopback(), 0);
    const common::FileDescriptor probe(openSocket(AF_INET6));
    return probe && ::bind(probe.number(), endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0;
}

/// Loopback has no bottleneck to look for, and a sender that paces itself (bbr) is up to three times slower there.
/// Every kernel allows reno; accepted sockets inherit it.
void withoutPacing(int listener)
{
    constexpr std::string_view kReno = "reno";
    ::setsockopt(listener, IPPROTO_TCP, TCP_CONGESTION, kReno.data(), kReno.size());
}

bool isOfThisUser(int socket)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == ::geteuid() || peer.uid == 0);
}

} // namespace

Acceptor::Acceptor(std::vector<std::shared_ptr<Loop>> loops)
    : loops_(std::move(loops)), core_(loops_.front()->core()), acceptor_(loops_.front()->context()),
      pauseTimer_(loops_.front()->context())
{}

Acceptor::~Acceptor()
{
    if (!unixPath_.empty())
        ::unlink(unixPath_.c_str());
}

void Acceptor::bind(const Protocol::endpoint& endpoint, const std::string& place)
{
    const int socket = openSocket(endpoint.protocol().family());
    if (socket < 0)
        fail(place, std::generic_category().message(errno));
    error_code error;
    acceptor_.assign(endpoint.protocol(), socket, error);
    if (!error && endpoint.protocol().family() != AF_UNIX)
        acceptor_.set_option(asio::socket_base::reuse_address(true), error);
    if (!error && endpoint.protocol().family() == AF_INET6)
        acceptor_.set_option(asio::ip::v6_only(true), error);
    if (!error)
        acceptor_.bind(endpoint, error);
    if (error)
        fail(place, error.message());
    family_ = endpoint.protocol().family();
}

std::uint16_t Acceptor::listen(const std::string& address, std::uint16_t port)
{
    const std::string place = placeText(address, port);
    error_code error;
    const auto numeric = asio::ip::make_address(address, error);
    if (error)
        fail(place, "not an IP address");
    bind(tcp::endpoint(numeric, port), place);
    if (numeric.is_loopback())
        withoutPacing(acceptor_.native_handle());
    acceptor_.listen(core_.settings.parameters->getMaxQueued(), error);
    if (error)
        fail(place, error.message());
    const auto local = acceptor_.local_endpoint();
    tcp::endpoint endpoint;
    std::memcpy(endpoint.data(), local.data(), local.size());
    return endpoint.port();
}

void Acceptor::listenUnix(const std::string& path)
{
    struct stat status
    {};
    if (path.size() >= sizeof(sockaddr_un::sun_path))
        fail(path, "the path is too long for a socket");
    const asio::local::stream_protocol::endpoint endpoint(path);
    if (::lstat(path.c_str(), &status) == 0) {
        if (!S_ISSOCK(status.st_mode) || status.st_uid != ::geteuid())
            fail(path, "there is something else");
        if (isAlive(endpoint))
            fail(path, "Address already in use");
        ::unlink(path.c_str());
    }
    bind(endpoint, path);
    unixPath_ = path;
    // Nobody can connect before it listens.
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0)
        fail(path, std::generic_category().message(errno));
    error_code error;
    acceptor_.listen(core_.settings.parameters->getMaxQueued(), error);
    if (error)
        fail(path, error.message());
}

std::vector<std::shared_ptr<Acceptor>> listenAsSet(const std::vector<std::shared_ptr<Loop>>& loops, std::uint16_t& port)
{
    const ServerSettings& settings = loops.front()->core().settings;
    std::vector<std::shared_ptr<Acceptor>> acceptors;
    const auto add = [&] { return acceptors.emplace_back(std::make_shared<Acceptor>(loops)); };
    const bool both = settings.address == "localhost";
    for (int attempt = 0;; ++attempt) {
        acceptors.clear();
        port = add()->listen(both ? "127.0.0.1" : settings.address, settings.port);
        if (!both || !hasIpv6Loopback())
            break;
        try {
            add()->listen("::1", port);
            break;
        } catch (const std::runtime_error&) {
            // A free port of IPv4 may be taken on IPv6.
            if (settings.port != 0 || attempt == kFreePortAttempts)
                throw;
        }
    }
    if (!settings.unixSocket.empty())
        add()->listenUnix(settings.unixSocket);
    return acceptors;
}

void Acceptor::stop()
{
    error_code ignored;
    acceptor_.close(ignored);
    pauseTimer_.cancel();
}

void Acceptor::acceptLater()
{
    acceptor_.async_wait(asio::socket_base::wait_read, [self = shared_from_this()](const error_code& error) {
        if (!error && self->acceptor_.is_open())
            self->acceptSome();
    });
}

void Acceptor::acceptSome()
{
    for (int i = 0; i < kMostAtOnce; ++i) {
        const int socket = ::accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket >= 0)
            accepted(socket);
        else if (errno == EAGAIN || errno == EWOULDBLOCK)
            break;
        else if (errno != ECONNABORTED && errno != EINTR)
            return pause();
    }
    acceptLater();
}

void Acceptor::accepted(int socket)
{
    const bool isUnix = !unixPath_.empty();
    common::FileDescriptor held(socket);
    if (isUnix && !isOfThisUser(socket))
        return;
    if (pausing_) {
        pausing_ = false;
        common::log("connector.http", common::LogLevel::warning, "Connections are accepted again.");
    }
    ++core_.accepted;
    const auto open = core_.connections.load();
    const bool welcome = open < core_.maxConnections;
    if (!welcome && ++core_.turnedAway > 0 && open >= core_.maxConnections + kMaxTurnedAway)
        return;
    const auto& loop = welcome ? leastBurdened(loops_) : withMostStrangers(loops_);
    // Counted from here on, so that a burst cannot slip past the limit on its way to the loops.
    auto counted = std::make_unique<ConnectionCount>(loop->sharedCore());
    Stream::Socket stream(loop->context(), Protocol(family_, 0), held.release());
    asio::post(loop->context(), [target = std::weak_ptr(loop), stream = std::move(stream), isUnix, welcome,
                                 counted = std::move(counted)]() mutable {
        if (const auto alive = target.lock())
            alive->adopt(std::move(stream), isUnix, welcome, std::move(counted));
    });
}

/// No descriptors or memory left: the client waits in the backlog until there are some.
void Acceptor::pause()
{
    if (!pausing_)
        common::log("connector.http", common::LogLevel::error, "Connections cannot be accepted for now.");
    pausing_ = true;
    pauseTimer_.expires_after(kPauseAfterFailure);
    pauseTimer_.async_wait([self = shared_from_this()](const error_code& error) {
        if (!error && self->acceptor_.is_open())
            self->acceptSome();
    });
}

} // namespace connector::http::engine
