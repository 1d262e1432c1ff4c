// The bytes of a body, sent to servers that refuse it in every way there is, and to one that takes it. Whatever the
// bytes and however they come in pieces: each request gets one answer, and nothing of its body is served.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "connector/common/FileDescriptor.h"
#include "connector/common/WorkerPool.h"
#include "connector/core/Connector.h"
#include "connector/http/PocoHttpsServer.h"

using namespace connector;
using namespace connector::http;

namespace {

using Answer = std::unique_ptr<Message>;

constexpr const char* kPath = "/wanted";
constexpr const char* kPathBehind = "/behind";
/// Behind the body.
constexpr std::string_view kBehind = "GET /behind HTTP/1.1\r\nHost: localhost\r\n\r\n";
constexpr unsigned kBehindStatus = 202;
/// At the end of each body.
constexpr std::string_view kSmuggled = "GET /smuggled HTTP/1.1\r\nHost: localhost\r\n\r\n";

void require(bool condition)
{
    if (!condition)
        std::abort();
}

Answer answerOf(unsigned status) { return std::make_unique<HttpResponse>(status, "text/plain", "x"); }

MessageFuture takeUpTo(std::unique_ptr<HttpRequest> request, std::uint64_t most)
{
    return readWhole(std::move(request), most).then([](Future<std::unique_ptr<HttpRequest>> whole) {
        return answerOf(whole.get()->body.ends_with(kSmuggled) ? 200 : 500);
    });
}

MessageFuture answerElsewhere()
{
    static common::WorkerPool others(1);
    const auto promise = std::make_shared<Promise<Answer>>();
    auto answer = promise->future();
    require(others.post([promise] { promise->setValue(answerOf(200)); }));
    return answer;
}

/// One way to end a request with a body, and the statuses that it may have.
struct Ending
{
    std::vector<unsigned> statuses;
    MessageFuture (*serve)(std::unique_ptr<HttpRequest>);
    void (*set)(ServerSettings&) = [](ServerSettings&) {};
};

MessageFuture takeAll(std::unique_ptr<HttpRequest> request) { return takeUpTo(std::move(request), 1u << 20); }

const std::vector<Ending> kEndings{
    {{200}, takeAll},
    {{200, 413}, [](std::unique_ptr<HttpRequest> request) { return takeUpTo(std::move(request), 100); }},
    {{200, 413}, takeAll, [](ServerSettings& settings) { settings.maxBodyBytes = 150; }},
    {{200, 503}, takeAll, [](ServerSettings& settings) { settings.maxHeldBodyBytes = 100; }},
    {{200, 503}, takeAll, [](ServerSettings& settings) { settings.maxSpooledBytes = 200; }},
    {{200, 507}, takeAll, [](ServerSettings& settings) { settings.spoolFolder = "/nonexistent"; }},
    {{401}, [](std::unique_ptr<HttpRequest>) { return makeReadyFuture(answerOf(401)); }},
    {{200}, [](std::unique_ptr<HttpRequest>) { return makeReadyFuture(answerOf(200)); }},
    {{200}, [](std::unique_ptr<HttpRequest>) { return answerElsewhere(); }},
    {{500}, [](std::unique_ptr<HttpRequest>) -> MessageFuture { throw std::runtime_error("no"); }},
    {{200},
     [](std::unique_ptr<HttpRequest> request) {
         takeAll(std::move(request)).cancel();
         return answerElsewhere();
     }},
};

/// Of the request at work: its body was whole when it was served, so that no answer leaves any of it unread.
std::atomic<bool> cameWhole{false};

class Servers
{
public:
    Servers() : folder_("/tmp/http_refusal." + std::to_string(::getpid()))
    {
        for (std::size_t i = 0; i < kEndings.size(); ++i) {
            ServerSettings settings;
            settings.memoryBodyBytes = 120;
            settings.unixSocket = path(i);
            kEndings[i].set(settings);
            servers_.push_back(std::make_shared<PocoHttpsServer>(settings, [i](std::unique_ptr<HttpRequest> request) {
                const bool isBehind = request->path == kPathBehind;
                require(isBehind || request->path == kPath);
                if (!isBehind)
                    cameWhole = !request->pendingBody;
                request->admit();
                PocoHttpsServer::Exchange exchange;
                exchange.answer =
                    isBehind ? makeReadyFuture(answerOf(kBehindStatus)) : kEndings[i].serve(std::move(request));
                return exchange;
            }));
            servers_.back()->open();
        }
    }

    common::FileDescriptor connect(std::size_t i) const
    {
        common::FileDescriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path(i).copy(address.sun_path, sizeof(address.sun_path) - 1);
        require(::connect(client.number(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0);
        return client;
    }

private:
    std::string path(std::size_t i) const { return folder_ + "." + std::to_string(i); }

    const std::string folder_;
    std::vector<std::shared_ptr<PocoHttpsServer>> servers_;
};

void send(const common::FileDescriptor& client, std::string_view bytes)
{
    while (!bytes.empty()) {
        const auto count = ::send(client.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0)
            return; // the server has closed, as it may after its answer
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

/// Gives the server the time to read what it wants to.
void letRead(const common::FileDescriptor& client)
{
    int unread = 1;
    for (int i = 0; i < 200 && unread > 0 && ::ioctl(client.number(), SIOCOUTQ, &unread) == 0; ++i)
        std::this_thread::yield();
}

std::string receiveAll(const common::FileDescriptor& client)
{
    std::string received;
    char chunk[4096];
    for (;;) {
        const auto count = ::recv(client.number(), chunk, sizeof(chunk), 0);
        if (count <= 0)
            return received;
        received.append(chunk, static_cast<std::size_t>(count));
    }
}

std::string framed(const std::string& body, bool chunked, std::size_t step)
{
    std::ostringstream wire;
    wire << "POST " << kPath << " HTTP/1.1\r\nHost: localhost\r\n";
    if (!chunked) {
        wire << "Content-Length: " << body.size() << "\r\n\r\n" << body;
        return wire.str();
    }
    wire << "Transfer-Encoding: chunked\r\n\r\n" << std::hex;
    for (std::size_t at = 0; at < body.size(); at += step)
        wire << std::min(step, body.size() - at) << "\r\n" << body.substr(at, step) << "\r\n";
    wire << "0\r\n\r\n";
    return wire.str();
}

unsigned statusOf(std::string_view answer)
{
    constexpr std::string_view kStart = "HTTP/1.1 ";
    require(answer.starts_with(kStart) && answer.rfind(kStart) == 0);
    return static_cast<unsigned>(std::stoul(std::string(answer.substr(kStart.size(), 3))));
}

void check(const Ending& ending, std::string_view answered)
{
    const auto second = std::min(answered.find("HTTP/1.1 ", 1), answered.size());
    const std::string_view first = answered.substr(0, second);
    const unsigned status = statusOf(first);
    require(std::find(ending.statuses.begin(), ending.statuses.end(), status) != ending.statuses.end());
    const bool ends = first.find("\r\nConnection: close\r\n") != std::string_view::npos;
    require(ends == (second == answered.size()));
    require(ends || statusOf(answered.substr(second)) == kBehindStatus);
    require(ends || status < 400 || cameWhole);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Servers servers;
    if (size < 4)
        return 0;
    const std::size_t which = data[0] % kEndings.size();
    const std::size_t step = data[2] == 0 ? 1'000'000 : data[2];
    const std::string body = std::string(reinterpret_cast<const char*>(data) + 4, size - 4) + std::string(kSmuggled);
    const std::string wire = framed(body, data[1] % 2 == 1, step) + std::string(kBehind);
    const std::size_t cut = wire.size() * data[3] / 256;
    for (const std::size_t first : {wire.size(), cut}) {
        cameWhole = false;
        const auto client = servers.connect(which);
        send(client, std::string_view(wire).substr(0, first));
        if (first < wire.size())
            letRead(client);
        send(client, std::string_view(wire).substr(first));
        ::shutdown(client.number(), SHUT_WR);
        check(kEndings[which], receiveAll(client));
    }
    return 0;
}
