// Requests to the interpreter over the bus: a verb, a line's end, and JSON data. Each is answered once, on its channel
// and with its tag, whatever it holds; evaluations that it starts end and are told of without a gap.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include "EchoEngine.h"
#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/interpreter/AsyncEvalService.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

using namespace connector;

namespace {

void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

/// The client's end of a WebSocket.
class Sink final : public bayeux::BayeuxChannelSink
{
public:
    bool send(const std::shared_ptr<const std::string>& frame, http::SendWhen) override
    {
        std::lock_guard lock(mutex_);
        frames_.push_back(frame);
        return true;
    }
    std::size_t queuedBytes() const override { return 0; }
    void close() override {}

    std::vector<json::Object::Ptr> take()
    {
        std::vector<std::shared_ptr<const std::string>> frames;
        {
            std::lock_guard lock(mutex_);
            frames.swap(frames_);
        }
        json::Limits limits;
        limits.depth = json::kMaxWriteDepth;
        std::vector<json::Object::Ptr> messages;
        for (const auto& frame : frames) {
            const auto array = json::asArray(json::parse(*frame, limits));
            for (const auto& message : *array)
                messages.push_back(json::asObject(message));
        }
        return messages;
    }

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<const std::string>> frames_;
};

struct Bus
{
    std::shared_ptr<Sink> sink = std::make_shared<Sink>();
    std::shared_ptr<bayeux::BayeuxServerImpl> server = std::make_shared<bayeux::BayeuxServerImpl>();
    interpreter::v1::AsyncEvalService service{server, nullptr, nullptr, boost::make_shared<EchoEngine>()};
    std::string clientId;

    Bus()
    {
        server->start();
        const auto answer =
            ask(R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":["websocket"]}])");
        clientId = json::requireString(*json::asObject(json::asArray(json::parse(answer))->get(0)), "clientId");
        ask(R"([{"channel":"/meta/connect","connectionType":"websocket","clientId":")" + clientId + "\"}]");
    }

    std::string ask(std::string body)
    {
        bayeux::BayeuxOrigin origin;
        origin.webSocket = sink;
        return server->handle(std::move(body), origin).get();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static Bus bus;
    const std::string input(reinterpret_cast<const char*>(bytes), size);
    const auto end = input.find('\n');
    if (end == std::string::npos)
        return 0;
    const std::string channel = "/service/interpreter/" + input.substr(0, end);
    Poco::Dynamic::Var data;
    try {
        data = json::parse(input.substr(end + 1));
        json::write(channel);
    } catch (const json::JsonError&) {
        return 0;
    }

    auto message = json::makeObject();
    message->set("channel", channel);
    message->set("clientId", bus.clientId);
    message->set("data", data);
    std::string text;
    try {
        text = "[" + json::write(message) + "]";
    } catch (const json::JsonError&) {
        return 0;
    }
    const std::string replies = bus.ask(text);
    auto messages = bus.sink->take();
    if (!replies.empty()) // else the acknowledgement has gone along with the answer
        messages.push_back(json::asObject(json::asArray(json::parse(replies))->get(0)));

    std::size_t acknowledged = 0;
    std::size_t taken = 0;
    std::size_t answers = 0;
    for (const auto& event : messages) {
        if (event->has("successful")) {
            ++acknowledged;
            taken += json::requireBool(*event, "successful");
            require(!json::optionalString(*event, "error").starts_with("402"), "the client was thrown out");
            continue;
        }
        const auto on = json::requireString(*event, "channel");
        if (on.starts_with("/meta/") || on.starts_with("/interpreter/eval/"))
            continue; // comes when it comes, also of former inputs
        require(on == channel, "an answer on another channel");
        ++answers;
        const auto answer = json::asObject(event->get("data"));
        const bool hasTag = data.type() == typeid(json::Object::Ptr) && !json::asObject(data)->get("tag").isEmpty();
        require(answer->has("tag") == hasTag, "an answer without the tag, or with one that nobody gave");
    }
    require(acknowledged == 1, "not one acknowledgement");
    require(answers == taken, "not one answer");
    return 0;
}
