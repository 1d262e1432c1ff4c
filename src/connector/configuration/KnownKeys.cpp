#include "connector/configuration/KnownKeys.h"

#include <algorithm>

namespace connector::configuration {

namespace {

using List = std::vector<std::string>;

constexpr std::int64_t kMiB = 1'048'576;
constexpr double kMaxBytes = 16.0 * 1'024 * kMiB;
constexpr double kDaySeconds = 86'400;

Value text(const char* value) { return std::string(value); }
Value integer(std::int64_t value) { return value; }

std::vector<Key> makeKeys()
{
    std::vector<Key> keys{
        {"container.maxMessages", integer(1'000), "Messages in one container request", 1, 100'000},
        {"http.address", text("127.0.0.1"), "The address to listen on; beyond loopback only with TLS"},
        {"http.allowedHosts", List{}, "Host names besides the loopback ones that requests may name"},
        {"http.bodyTimeoutSeconds", integer(60), "Time for a request's body to arrive", 1, kDaySeconds},
        {"http.contentRoots", List{}, "More folders to serve files from, each as prefix=folder"},
        {"http.headTimeoutSeconds", integer(10), "Time for a request's head to arrive", 1, kDaySeconds},
        {"http.idleTimeoutSeconds", integer(120), "Time a connection may be silent between requests", 1, kDaySeconds},
        {"http.ioThreads", integer(2), "Threads that serve connections", 1, 16},
        {"http.maxBodyBytes", integer(64 * kMiB), "Size of a request's body", 0, kMaxBytes},
        {"http.maxConnections", integer(10'000), "Connections at a time", 1, 1'000'000},
        {"http.maxHeadBytes", integer(32'768), "Size of a request's head", 1'024, kMiB},
        {"http.maxSessions", integer(1'000), "HTTP sessions at a time", 1, 1'000'000},
        {"http.port", integer(0), "The port to listen on; 0 is a free one", 0, 65'535},
        {"http.sessionIdleMinutes", integer(720), "Time after which an unused HTTP session ends", 1, 525'600},
        {"interpreter.maxOutputBytes", integer(256 * kMiB), "Output kept of one evaluation", kMiB, kMaxBytes},
        {"interpreter.maxQueued", integer(1'000), "Requests that wait for the interpreter", 1, 1'000'000},
        {"security.tokenFile", true, "Whether the bearer token is written to a file that only the user can read"},
    };
    std::sort(keys.begin(), keys.end(), [](const Key& left, const Key& right) { return left.name < right.name; });
    return keys;
}

} // namespace

const std::vector<Key>& knownKeys()
{
    static const std::vector<Key> keys = makeKeys();
    return keys;
}

} // namespace connector::configuration
