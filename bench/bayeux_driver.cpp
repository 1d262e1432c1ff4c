// Subscribers and a publisher of one Bayeux channel against any server, on one thread.
//
// Usage: bayeux_driver PORT PATH PID KIND SUBSCRIBERS BYTES MESSAGES PER_SECOND [TOKEN]
//   KIND        websocket or long-polling, of the subscribers; the publisher uses a WebSocket
//   PER_SECOND  paced publishing, for latencies; 0: as fast as deliveries come back, a few messages ahead
// Prints one line: deliveries, rate, server CPU per delivery, latency.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kAhead = 10;
constexpr std::chrono::seconds kPatience{30};

struct Options
{
    int port;
    std::string path;
    int pid;
    bool webSocket;
    std::size_t subscribers;
    std::size_t bytes;
    std::size_t messages;
    double perSecond;
    std::string token;
};

std::int64_t now() { return Clock::now().time_since_epoch().count(); }

/// Of all threads of a process.
double cpuSeconds(int pid)
{
    clockid_t clock{};
    timespec time{};
    if (::clock_getcpuclockid(pid, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        throw std::runtime_error("no such server: " + std::to_string(pid));
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double residentMiB(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    double pages = 0;
    file >> pages >> pages;
    return pages * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1048576;
}

/// What follows `"name":"` up to the next quote.
std::string_view member(std::string_view text, const char* name)
{
    const std::string key = std::string("\"") + name + "\":\"";
    const auto at = text.find(key);
    if (at == std::string_view::npos)
        return {};
    const auto begin = at + key.size();
    return text.substr(begin, text.find('"', begin) - begin);
}

/// A blocking-write, event-read connection that yields whole texts: WebSocket messages or HTTP bodies.
class Client
{
public:
    Client(const Options& options, bool webSocket) : options_(options), webSocket_(webSocket)
    {
        socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(options.port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot connect");
        const int on = 1;
        ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (webSocket) {
            write("GET " + options.path + " HTTP/1.1\r\n" + common() +
                  "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
            while (buffer_.find("\r\n\r\n") == std::string::npos)
                read();
            if (buffer_.compare(0, 12, "HTTP/1.1 101") != 0)
                throw std::runtime_error("no WebSocket: " + buffer_.substr(0, 100));
            buffer_.erase(0, buffer_.find("\r\n\r\n") + 4);
        }
    }
    ~Client() { ::close(socket_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int socket() const { return socket_; }

    void send(const std::string& text)
    {
        if (!webSocket_) {
            write("POST " + options_.path + " HTTP/1.1\r\n" + common() +
                  "Content-Type: application/json\r\nContent-Length: " + std::to_string(text.size()) + "\r\n\r\n" +
                  text);
            return;
        }
        std::string frame("\x81");
        if (text.size() < 126) {
            frame += static_cast<char>(0x80 | text.size());
        } else {
            frame += static_cast<char>(0x80 | 126);
            frame += static_cast<char>(text.size() >> 8);
            frame += static_cast<char>(text.size() & 0xff);
        }
        frame.append(4, '\0'); // a mask that changes nothing
        write(frame + text);
    }

    /// Reads once; false when nothing was there to read.
    bool read()
    {
        char bytes[65536];
        const auto count = ::recv(socket_, bytes, sizeof bytes, 0);
        if (count <= 0)
            throw std::runtime_error("the server closed: " + buffer_.substr(0, 200));
        buffer_.append(bytes, static_cast<std::size_t>(count));
        return true;
    }

    /// The next whole text that has arrived; false when there is none.
    bool next(std::string& text)
    {
        const std::size_t left = buffer_.size() - used_;
        const char* at = buffer_.data() + used_;
        std::size_t head = 0;
        std::size_t size = 0;
        if (webSocket_) {
            if (left < 2)
                return compact();
            size = static_cast<unsigned char>(at[1]) & 0x7f;
            head = size < 126 ? 2 : size == 126 ? 4 : 10;
            if (left < head)
                return compact();
            if (head > 2) {
                size = 0;
                for (std::size_t i = 2; i < head; ++i)
                    size = size << 8 | static_cast<unsigned char>(at[i]);
            }
        } else {
            const std::string_view seen(at, left);
            const auto end = seen.find("\r\n\r\n");
            if (end == std::string_view::npos)
                return compact();
            const auto length = seen.find("ontent-Length: ");
            const auto lower = seen.find("ontent-length: ");
            const auto field = std::min(length, lower);
            if (field > end)
                throw std::runtime_error("no length: " + std::string(seen.substr(0, end)));
            size = std::strtoul(at + field + 15, nullptr, 10);
            head = end + 4;
        }
        if (left < head + size)
            return compact();
        text.assign(at + head, size);
        used_ += head + size;
        return true;
    }

    std::string ask(const std::string& text)
    {
        send(text);
        std::string answer;
        while (!next(answer))
            read();
        return answer;
    }

    std::string clientId;

private:
    std::string common() const
    {
        std::string fields = "Host: 127.0.0.1:" + std::to_string(options_.port) + "\r\n";
        if (!options_.token.empty())
            fields += "Authorization: Bearer " + options_.token + "\r\n";
        return fields;
    }
    void write(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const auto count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0)
                throw std::runtime_error("the server takes nothing");
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    bool compact()
    {
        buffer_.erase(0, used_);
        used_ = 0;
        return false;
    }

    const Options& options_;
    const bool webSocket_;
    int socket_ = -1;
    std::string buffer_;
    std::size_t used_ = 0;
};

std::string connectText(const Client& client, bool webSocket)
{
    return R"([{"channel":"/meta/connect","clientId":")" + client.clientId + R"(","connectionType":")" +
           (webSocket ? "websocket" : "long-polling") + R"(","id":"c"}])";
}

std::unique_ptr<Client> join(const Options& options, bool webSocket, bool subscribe)
{
    auto client = std::make_unique<Client>(options, webSocket);
    const auto answer = client->ask(R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":)"
                                    R"(["websocket","long-polling"],"id":"h"}])");
    client->clientId = std::string(member(answer, "clientId"));
    if (client->clientId.empty())
        throw std::runtime_error("no handshake: " + answer);
    if (subscribe) {
        const auto subscribed = client->ask(R"([{"channel":"/meta/subscribe","clientId":")" + client->clientId +
                                            R"(","subscription":"/bench/fan","id":"s"}])");
        if (subscribed.find("\"successful\":true") == std::string::npos)
            throw std::runtime_error("no subscription: " + subscribed);
    }
    client->send(connectText(*client, webSocket));
    return client;
}

int run(const Options& options)
{
    const double memoryBefore = residentMiB(options.pid);
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < options.subscribers; ++i)
        clients.push_back(join(options, options.webSocket, true));
    const double memory = residentMiB(options.pid) - memoryBefore;
    clients.push_back(join(options, true, false)); // the publisher
    Client& publisher = *clients.back();

    const int poll = ::epoll_create1(EPOLL_CLOEXEC);
    for (auto& client : clients) {
        epoll_event event{EPOLLIN, {.ptr = client.get()}};
        ::epoll_ctl(poll, EPOLL_CTL_ADD, client->socket(), &event);
    }

    const std::string padding(options.bytes, 'x');
    std::vector<double> latencies;
    std::size_t published = 0;
    std::size_t delivered = 0;
    const std::size_t expected = options.subscribers * options.messages;
    const double cpuBefore = cpuSeconds(options.pid);
    const auto begin = Clock::now();
    auto lastProgress = begin;
    std::string text;
    std::vector<epoll_event> events(1024);
    while (delivered < expected) {
        const auto seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        const auto due = options.perSecond > 0 ? static_cast<std::size_t>(seconds * options.perSecond) + 1
                                               : delivered / options.subscribers + kAhead;
        while (published < std::min(due, options.messages)) {
            publisher.send(R"([{"channel":"/bench/fan","clientId":")" + publisher.clientId +
                           R"(","id":"p","data":{"t":")" + std::to_string(now()) + R"(","x":")" + padding + "\"}}]");
            ++published;
        }
        const int ready =
            ::epoll_wait(poll, events.data(), static_cast<int>(events.size()), options.perSecond > 0 ? 1 : 100);
        for (int i = 0; i < ready; ++i) {
            auto& client = *static_cast<Client*>(events[static_cast<std::size_t>(i)].data.ptr);
            client.read();
            while (client.next(text)) {
                std::string_view rest = text;
                for (auto at = rest.find("\"t\":\""); at != std::string_view::npos; at = rest.find("\"t\":\"")) {
                    rest.remove_prefix(at + 5);
                    latencies.push_back(static_cast<double>(now() - std::atoll(rest.data())) / 1e6);
                    ++delivered;
                    lastProgress = Clock::now();
                }
                if (text.find("/meta/connect") != std::string::npos)
                    client.send(connectText(client, &client == &publisher || options.webSocket));
            }
        }
        if (Clock::now() - lastProgress > kPatience)
            break;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const double cpu = cpuSeconds(options.pid) - cpuBefore;
    std::sort(latencies.begin(), latencies.end());
    const auto quantile = [&](double q) {
        return latencies.empty() ? 0
                                 : latencies[static_cast<std::size_t>(q * static_cast<double>(latencies.size() - 1))];
    };
    std::printf("%zu of %zu deliveries, %.0f/s, %.2f us of server CPU each, latency p50 %.2f p99 %.2f longest %.2f ms, "
                "%.1f KiB a subscriber\n",
                delivered, expected, static_cast<double>(delivered) / seconds,
                cpu * 1e6 / static_cast<double>(delivered), quantile(0.5), quantile(0.99), quantile(1),
                memory * 1024 / static_cast<double>(options.subscribers));
    ::close(poll);
    return delivered == expected ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
try {
    if (argc < 9)
        throw std::runtime_error("see the head of the source for the arguments");
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
    const Options options{std::atoi(argv[1]),
                          argv[2],
                          std::atoi(argv[3]),
                          std::strcmp(argv[4], "websocket") == 0,
                          std::strtoul(argv[5], nullptr, 10),
                          std::strtoul(argv[6], nullptr, 10),
                          std::strtoul(argv[7], nullptr, 10),
                          std::atof(argv[8]),
                          argc > 9 ? argv[9] : ""};
    return run(options);
} catch (const std::exception& error) {
    std::fprintf(stderr, "bayeux_driver: %s\n", error.what());
    return 2;
}
