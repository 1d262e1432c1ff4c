#include "FloorServer.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t kListener = 1;
constexpr std::uint64_t kAnswers = 2;
constexpr unsigned kClose = 8;

void set(int descriptor) { [[maybe_unused]] const int failed = ::eventfd_write(descriptor, 1); }

void clear(int descriptor)
{
    eventfd_t count = 0;
    [[maybe_unused]] const int failed = ::eventfd_read(descriptor, &count);
}

std::string response(const std::string& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

std::string frame(const std::string& text)
{
    std::string bytes("\x81");
    const std::size_t size = text.size();
    const unsigned wide = size < 126 ? 0 : size < 65536 ? 2 : 8;
    bytes += static_cast<char>(wide == 0 ? size : wide == 2 ? 126 : 127);
    for (unsigned i = wide; i > 0; --i)
        bytes += static_cast<char>(size >> (8 * (i - 1)) & 0xff);
    return bytes + text;
}

std::string_view field(std::string_view head, std::string_view name)
{
    const auto at = head.find(name);
    if (at == std::string_view::npos)
        return {};
    const auto begin = at + name.size();
    return head.substr(begin, head.find("\r\n", begin) - begin);
}

std::string upgrade(std::string_view key)
{
    const std::string proof = std::string(key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    ::SHA1(reinterpret_cast<const unsigned char*>(proof.data()), proof.size(), digest);
    unsigned char accept[32];
    ::EVP_EncodeBlock(accept, digest, sizeof digest);
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           std::string(reinterpret_cast<const char*>(accept)) + "\r\n\r\n";
}

} // namespace

FloorServer::FloorServer()
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)), tasksFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      answersFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(listener_, 128) != 0)
        throw std::system_error(errno, std::generic_category(), "floor server");
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    watch(listener_, kListener, false, false);
    watch(answersFd_, kAnswers, false, false);
    thread_ = std::thread([this] { serve(); });
}

FloorServer::~FloorServer()
{
    {
        std::lock_guard lock(mutex_);
        ended_ = true;
    }
    set(answersFd_);
    thread_.join();
    for (const auto& [id, client] : clients_)
        ::close(client.socket);
    for (const int descriptor : {listener_, epoll_, tasksFd_, answersFd_})
        ::close(descriptor);
}

bool FloorServer::takeTask(Task& task)
{
    std::lock_guard lock(mutex_);
    if (tasks_.empty())
        return false;
    task = std::move(tasks_.front());
    tasks_.pop_front();
    if (tasks_.empty())
        clear(tasksFd_);
    return true;
}

void FloorServer::answer(const Task& task, std::string text)
{
    std::string bytes = task.webSocket ? frame(text) : response(text);
    std::unique_lock lock(mutex_);
    room_.wait(lock, [&] { return waiting_ < kMostWaiting; });
    waiting_ += bytes.size();
    answers_.emplace_back(task.client, std::move(bytes));
    if (answers_.size() == 1)
        set(answersFd_);
}

void FloorServer::watch(int descriptor, std::uint64_t id, bool change, bool write)
{
    epoll_event event{};
    event.events = EPOLLIN | (write ? EPOLLOUT : 0U);
    event.data.u64 = id;
    ::epoll_ctl(epoll_, change ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, descriptor, &event);
}

void FloorServer::serve()
{
    epoll_event events[64];
    for (;;) {
        const int ready = ::epoll_wait(epoll_, events, 64, spin_.isActive() ? 0 : -1);
        if (ready == 0)
            spin_.giveWay();
        for (int i = 0; i < ready; ++i) {
            const auto id = events[i].data.u64;
            if (id == kListener) {
                accept();
            } else if (id == kAnswers) {
                clear(answersFd_);
                sendAnswers();
            } else {
                if (const auto found = clients_.find(id); found != clients_.end() && (events[i].events & EPOLLOUT) != 0)
                    flush(id, found->second);
                if ((events[i].events & ~static_cast<unsigned>(EPOLLOUT)) != 0)
                    readFrom(id);
            }
        }
        std::lock_guard lock(mutex_);
        if (ended_)
            return;
    }
}

void FloorServer::accept()
{
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0)
        return;
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    clients_[++lastId_].socket = socket;
    watch(socket, lastId_, false, false);
}

void FloorServer::readFrom(std::uint64_t id)
{
    const auto found = clients_.find(id);
    if (found == clients_.end())
        return;
    Client& client = found->second;
    char bytes[65536];
    const auto count = ::recv(client.socket, bytes, sizeof bytes, 0);
    if (count <= 0) {
        if (count == 0 || errno != EAGAIN)
            drop(id);
        return;
    }
    client.received.append(bytes, static_cast<std::size_t>(count));
    while (client.webSocket ? takeFrame(id, client) : takeRequest(id, client)) {
    }
    if (client.received.size() > sizeof bytes)
        drop(id);
}

bool FloorServer::takeRequest(std::uint64_t id, Client& client)
{
    const std::string_view received = client.received;
    const auto end = received.find("\r\n\r\n");
    if (end == std::string_view::npos)
        return false;
    const auto head = received.substr(0, end + 2);
    if (const auto key = field(head, "Sec-WebSocket-Key: "); !key.empty()) {
        const auto answer = upgrade(key);
        client.webSocket = true;
        ::send(client.socket, answer.data(), answer.size(), MSG_NOSIGNAL);
        client.received.erase(0, end + 4);
        return false;
    }
    const auto length = std::strtoul(std::string(field(head, "Content-Length: ")).c_str(), nullptr, 10);
    if (received.size() < end + 4 + length)
        return false;
    if (head.starts_with("POST /interrupt ")) {
        onInterrupt(context);
        const auto answer = response("");
        ::send(client.socket, answer.data(), answer.size(), MSG_NOSIGNAL);
    } else {
        post({id, false, std::string(received.substr(end + 4, length))});
    }
    client.received.erase(0, end + 4 + length);
    return true;
}

bool FloorServer::takeFrame(std::uint64_t id, Client& client)
{
    const std::string& received = client.received;
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(received[at]); };
    if (received.size() < 6)
        return false;
    const bool wide = (byte(1) & 0x7f) == 126;
    const std::size_t size = wide ? byte(2) << 8 | byte(3) : byte(1) & 0x7f;
    const std::size_t head = wide ? 8 : 6;
    if ((byte(0) & 0x0f) == kClose) {
        ::shutdown(client.socket, SHUT_RDWR);
        return false;
    }
    if (received.size() < head + size)
        return false;
    post({id, true, received.substr(head, size)});
    client.received.erase(0, head + size);
    return true;
}

/// One client that asks again and again keeps this thread awake, as it does the connector's.
void FloorServer::post(Task task)
{
    if (std::exchange(asker_, task.client) == task.client)
        spin_.start(fl::AdaptiveSpin::kForAnswer);
    std::lock_guard lock(mutex_);
    if (tasks_.size() >= kMostTasks)
        return;
    tasks_.push_back(std::move(task));
    if (tasks_.size() == 1)
        set(tasksFd_);
}

void FloorServer::sendAnswers()
{
    std::deque<std::pair<std::uint64_t, std::string>> answers;
    {
        std::lock_guard lock(mutex_);
        answers.swap(answers_);
    }
    std::size_t lost = 0;
    for (auto& [id, bytes] : answers) {
        const auto found = clients_.find(id);
        if (found == clients_.end()) {
            lost += bytes.size();
            continue;
        }
        Client& client = found->second;
        const bool idle = client.unsent.empty();
        client.unsent += bytes;
        if (idle)
            flush(id, client);
    }
    if (lost == 0)
        return;
    std::lock_guard lock(mutex_);
    waiting_ -= lost;
    room_.notify_all();
}

void FloorServer::flush(std::uint64_t id, Client& client)
{
    const auto count = ::send(client.socket, client.unsent.data(), client.unsent.size(), MSG_NOSIGNAL);
    if (count > 0) {
        client.unsent.erase(0, static_cast<std::size_t>(count));
        std::lock_guard lock(mutex_);
        waiting_ -= static_cast<std::size_t>(count);
        room_.notify_all();
    }
    if (client.awaitsRoom != !client.unsent.empty()) {
        client.awaitsRoom = !client.unsent.empty();
        watch(client.socket, id, true, client.awaitsRoom);
    }
}

void FloorServer::drop(std::uint64_t id)
{
    const auto found = clients_.find(id);
    {
        std::lock_guard lock(mutex_);
        waiting_ -= found->second.unsent.size();
        room_.notify_all();
    }
    ::close(found->second.socket);
    clients_.erase(found);
}
