#include "EchoServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <system_error>

#include "platform/fl/adaptive_spin.h"

namespace {

void wake(int descriptor)
{
    const std::uint64_t one = 1;
    if (::write(descriptor, &one, sizeof one) != sizeof one)
        throw std::system_error(errno, std::generic_category(), "eventfd");
}

void drain(int descriptor)
{
    std::uint64_t count = 0;
    if (::read(descriptor, &count, sizeof count) < 0 && errno != EAGAIN)
        throw std::system_error(errno, std::generic_category(), "eventfd");
}

void watch(int epoll, int descriptor)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

} // namespace

EchoServer::EchoServer(std::string body)
    : answer_("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
              "\r\n\r\n" + body),
      listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), toWorker_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      toServer_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(listener_, 8) != 0)
        throw std::system_error(errno, std::generic_category(), "echo server");
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    server_ = std::thread([this] { serve(); });
    worker_ = std::thread([this] { work(); });
}

EchoServer::~EchoServer()
{
    ended_ = true;
    wake(toWorker_);
    wake(toServer_);
    server_.join();
    worker_.join();
    for (const int descriptor : {listener_, toWorker_, toServer_})
        ::close(descriptor);
}

void EchoServer::work()
{
    fl::AdaptiveSpin spin;
    while (!ended_) {
        pollfd waiting{toWorker_, POLLIN, 0};
        if (::poll(&waiting, 1, spin.isActive() ? 0 : -1) <= 0) {
            spin.giveWay();
            continue;
        }
        drain(toWorker_);
        wake(toServer_);
        spin.start(fl::AdaptiveSpin::kForNextTask);
    }
}

void EchoServer::serve()
{
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    watch(epoll, listener_);
    watch(epoll, toServer_);
    int connection = -1;
    fl::AdaptiveSpin spin;
    while (!ended_) {
        epoll_event event{};
        if (::epoll_wait(epoll, &event, 1, spin.isActive() ? 0 : -1) != 1) {
            spin.giveWay();
            continue;
        }
        if (event.data.fd == listener_) {
            connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            const int on = 1;
            ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            watch(epoll, connection);
        } else if (event.data.fd == toServer_) {
            drain(toServer_);
            if (connection >= 0)
                ::send(connection, answer_.data(), answer_.size(), MSG_NOSIGNAL);
        } else {
            char request[16 * 1024];
            if (::recv(connection, request, sizeof request, 0) > 0) {
                wake(toWorker_);
                spin.start(fl::AdaptiveSpin::kForAnswer);
            } else {
                ::close(connection);
                connection = -1;
            }
        }
    }
    if (connection >= 0)
        ::close(connection);
    ::close(epoll);
}
