// The first byte says whether the rest comes over HTTP or a WebSocket; "CLIENT" in it stands for the id of a client
// that is there. Every answer is an array of objects or none; a message behind whatever came is answered for itself,
// and last; and the server welcomes the next client.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <Poco/JSON/Array.h>

#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/http/HttpBody.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace {

using namespace connector;
using bayeux::BayeuxOrigin;

void require(bool condition)
{
    if (!condition)
        std::abort();
}

/// An array of at least one object.
json::Array::Ptr readReplies(const std::string& text)
{
    json::Limits limits;
    limits.loneSurrogates = true; // of an id, say, which comes back as it came
    const auto array = json::asArray(json::parse(text, limits));
    require(array->size() > 0);
    for (const auto& reply : *array)
        json::asObject(reply);
    return array;
}

class Sink final : public bayeux::BayeuxChannelSink
{
public:
    bool send(const std::shared_ptr<const std::string>& frame, http::SendWhen) override
    {
        readReplies(*frame);
        return true;
    }
    std::size_t queuedBytes() const override { return 0; }
    void close() override {}
};

std::string handshake(bayeux::BayeuxServer& server, const BayeuxOrigin& origin)
{
    const auto replies = readReplies(server
                                         .handle(R"({"channel":"/meta/handshake","version":"1.0",)"
                                                 R"("supportedConnectionTypes":["long-polling"]})",
                                                 origin)
                                         .get());
    const auto reply = json::asObject(replies->get(0));
    require(json::requireBool(*reply, "successful"));
    return json::requireString(*reply, "clientId");
}

/// One odd message does not keep another from its answer. Where what came is no message at all, nobody can tell what is
/// behind it.
void checkLast(bayeux::BayeuxServer& server, const BayeuxOrigin& origin, const std::string& body,
               const std::string& client)
{
    const std::string whole =
        "[" + body + R"(,{"channel":"/last","clientId":")" + client + R"(","data":1,"id":"last"}])";
    json::Limits limits;
    limits.bytes = whole.size();
    limits.loneSurrogates = true;
    std::vector<json::RawValue> messages;
    try {
        messages = json::parseRaw(whole, limits);
    } catch (const json::JsonError&) {
        return;
    }
    for (const auto& message : messages) // these may end the client, or are answered alone
        if (const auto channel = json::rawString(message.member("channel")); channel && channel->starts_with("/meta/"))
            return;
    const auto replies = readReplies(server.handle(whole, origin).get());
    const auto last = json::asObject(replies->get(static_cast<unsigned>(replies->size() - 1)));
    require(json::requireString(*last, "channel") == "/last" && json::requireString(*last, "id") == "last");
    require(messages.size() > server.limits().batch || replies->size() == messages.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const auto server = std::make_shared<bayeux::BayeuxServerImpl>();
    server->start();
    BayeuxOrigin origin;
    if (data[0] % 2 == 0)
        origin.webSocket = std::make_shared<Sink>();
    const std::string client = handshake(*server, origin);

    std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    constexpr std::string_view kPlace = "CLIENT";
    for (auto at = body.find(kPlace); at != std::string::npos; at = body.find(kPlace, at + client.size()))
        body.replace(at, kPlace.size(), client);
    checkLast(*server, origin, body, client);
    // Twice, since a first connect is answered at once and a second is held.
    for (int turn = 0; turn < 2; ++turn) {
        auto answer = server->handle(body, origin);
        if (!answer.isReady())
            continue;
        try {
            const std::string replies = answer.get();
            require(!replies.empty() || origin.webSocket);
            if (!replies.empty())
                readReplies(replies);
        } catch (const http::HttpFault& fault) {
            require(fault.status() == 400 || fault.status() == 413);
        }
    }
    server->publish("/a/b", std::string("news"));
    handshake(*server, origin);
    server->stop();
    require(server->sessions().empty());
    return 0;
}
