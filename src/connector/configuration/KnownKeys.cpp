#include "connector/configuration/KnownKeys.h"

#include <algorithm>
#include <set>

namespace connector::configuration {

namespace {

using List = std::vector<std::string>;

constexpr std::int64_t kMiB = 1'048'576;
constexpr double kMaxBytes = 16.0 * 1'024 * kMiB;
constexpr double kDaySeconds = 86'400;

/// A misread one of these opens another port than the one meant, or more than the user wants.
const std::set<std::string> kStrict{"http.port", "http.tls", "security.clientsManage", "security.tokenFile"};

Value text(const char* value) { return std::string(value); }
Value integer(std::int64_t value) { return value; }
Value number(double value) { return value; }

std::vector<Key> busKeys()
{
    return {
        {"bus.hiddenChannels", List{}, "Channels and patterns that clients neither subscribe nor publish to"},
        {"bus.holdSeconds", number(30), "Time a connect is held when there is nothing to tell", 1, 3'600},
        {"bus.intervalSeconds", number(0), "Time clients are advised to wait between connects", 0, 3'600},
        {"bus.lazyChannels", List{}, "Channels and patterns whose events wait for company"},
        {"bus.lazySeconds", number(5), "Time events of lazy channels may wait", 0.01, 3'600},
        {"bus.maxBatch", integer(1'000), "Messages in one array", 1, 100'000},
        {"bus.maxChannels", integer(100'000), "Channels at a time", 1, 10'000'000},
        {"bus.maxIdleSeconds", number(60), "Time a client without a connection is waited for", 1, kDaySeconds},
        {"bus.maxMessageBytes", integer(kMiB), "Size of one request or WebSocket message to the bus", 1'024, 64 * kMiB},
        {"bus.maxPollsOfOneBrowser", integer(2), "Connects held for one browser over long polling", 1, 100},
        {"bus.maxQueuedBytes", integer(4 * kMiB), "Size of the events that wait for one client", 65'536, 1'024 * kMiB},
        {"bus.maxQueuedMessages", integer(10'000), "Events that wait for one client", 1, 10'000'000},
        {"bus.maxRetainedBytes", integer(64 * kMiB), "Size of all events that are retained", 0, 1'024 * kMiB},
        {"bus.maxSessions", integer(20'000), "Clients of the bus at a time", 1, 1'000'000},
        {"bus.maxSubscriptions", integer(1'000), "Subscriptions of one client", 1, 1'000'000},
        {"bus.presenceChannels", List{}, "Channels and patterns of which joins and leaves are published"},
        {"bus.readOnlyChannels", List{}, "Channels and patterns that only the host publishes to"},
        {"bus.retainedChannels", List{}, "Channels and patterns whose last event new subscribers get"},
    };
}

std::vector<Key> otherKeys()
{
    return {
        {"http.address", text("localhost"),
         "The address to listen on; beyond loopback only with TLS and an access key"},
        {"http.allowedHosts", List{}, "Host names besides the loopback ones that requests may name"},
        {"http.allowedPeers", List{}, "Addresses and networks besides this machine that may connect"},
        {"http.bodyTimeoutSeconds", integer(60), "Time for a request's body to arrive", 1, kDaySeconds},
        {"http.certificateFile", text(""), "Certificate chain for TLS (PEM); empty for one of the installation's own"},
        {"http.contentRoots", List{}, "More folders to serve files from, each as prefix=folder"},
        {"http.headTimeoutSeconds", integer(10), "Time for a request's head to arrive", 1, kDaySeconds},
        {"http.idleTimeoutSeconds", integer(120), "Time a connection may be silent between requests", 1, kDaySeconds},
        {"http.ioThreads", integer(2), "Threads that serve connections", 1, 16},
        {"http.keyFile", text(""), "Private key that goes with http.certificateFile (PEM)"},
        {"http.maxBodyBytes", integer(4'096 * kMiB), "Size of a request's body", 0, kMaxBytes},
        {"http.maxConnections", integer(10'000), "Connections at a time", 1, 1'000'000},
        {"http.maxHeadBytes", integer(32'768), "Size of a request's head", 1'024, kMiB},
        {"http.maxSessions", integer(1'000), "HTTP sessions at a time", 1, 1'000'000},
        {"http.memoryBodyBytes", integer(kMiB), "Size beyond which a request's body goes to a file", 0, 64 * kMiB},
        {"http.port", integer(0), "The port to listen on; 0 is a free one", 0, 65'535},
        {"http.sessionIdleMinutes", integer(720), "Time after which an unused HTTP session ends", 1, 525'600},
        {"http.spoolFolder", text("/var/tmp"), "Folder for the bodies of large requests"},
        {"http.tls", false, "Whether ports speak HTTPS"},
        {"http.unixSocket", text(""), "Path of a Unix-domain socket to listen on as well"},
        {"interpreter.graceSeconds", integer(10), "Time that an evaluation goes on after its client left", 0,
         kDaySeconds},
        {"interpreter.maxOutputBytes", integer(256 * kMiB), "Output kept of one evaluation", kMiB, kMaxBytes},
        {"interpreter.maxQueued", integer(1'000), "Requests that wait for the interpreter", 1, 1'000'000},
        {"log.clientLevel", text("info"), "Level from which on log records of clients are written"},
        {"log.clientRecordsPerSecond", integer(100), "Log records of clients written in a second", 1, 1'000'000},
        {"security.accessIdleMinutes", integer(720), "Time after which a browser that did nothing has to enter again",
         1, 525'600},
        {"security.accessKeyFile", text(""), "File with a secret that lets in like the token of the process"},
        {"security.clientsManage", false, "Whether clients may open and close ports and add folders of content"},
        {"security.entryLifeSeconds", integer(600), "Time for which a one-time address works", 1, kDaySeconds},
        {"security.maxBrowsers", integer(100), "Browsers that are let in at a time", 1, 1'000},
        {"security.tokenFile", true, "Whether the bearer token is written to a file that only the user can read"},
    };
}

std::vector<Key> makeKeys()
{
    auto keys = otherKeys();
    for (auto& key : busKeys())
        keys.push_back(std::move(key));
    for (auto& key : keys)
        key.strict = kStrict.contains(key.name);
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
