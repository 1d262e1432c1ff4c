#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "connector/bayeux/BayeuxServerImpl.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

/// Keeps the frames; can be told to take no more.
class RecordingSink final : public BayeuxChannelSink
{
public:
    bool send(const std::shared_ptr<const std::string>& frame, http::SendWhen when) override
    {
        std::lock_guard lock(mutex_);
        if (broken)
            return false;
        patient_ += when == http::SendWhen::withNext;
        frames_.push_back(frame);
        return true;
    }
    std::size_t queuedBytes() const override { return queued; }
    void close() override { closed = true; }

    std::vector<std::string> take()
    {
        std::lock_guard lock(mutex_);
        std::vector<std::string> texts;
        for (const auto& frame : std::exchange(frames_, {}))
            texts.push_back(*frame);
        return texts;
    }
    std::vector<std::shared_ptr<const std::string>> frames() const
    {
        std::lock_guard lock(mutex_);
        return frames_;
    }

    /// How many of all frames could wait for the next.
    std::size_t patient() const
    {
        std::lock_guard lock(mutex_);
        return patient_;
    }

    std::atomic<bool> broken{false};
    std::atomic<bool> closed{false};
    std::atomic<std::size_t> queued{0};

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<const std::string>> frames_;
    std::size_t patient_ = 0;
};

inline std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

/// With members in the order of their names, and of a well-formed error only its number.
inline std::string normal(const Poco::Dynamic::Var& value)
{
    std::string text;
    if (value.type() == typeid(json::Array::Ptr)) {
        for (const auto& element : *value.extract<json::Array::Ptr>())
            text += (text.empty() ? "" : ",") + normal(element);
        return '[' + text + ']';
    }
    if (value.type() != typeid(json::Object::Ptr))
        return json::write(value);
    const auto object = value.extract<json::Object::Ptr>();
    std::map<std::string, std::string> members;
    for (const auto& [name, member] : *object)
        members[name] = normal(member);
    if (members.contains("error") && members["error"].size() > 5) {
        const std::string error = json::requireString(*object, "error");
        const auto second = error.find(':', 4);
        EXPECT_TRUE(error[3] == ':' && second != std::string::npos &&
                    error.find(':', second + 1) == std::string::npos && second + 1 < error.size())
            << error;
        members["error"] = '"' + error.substr(0, 3) + '"';
    }
    for (const auto& [name, member] : members)
        text += (text.empty() ? "" : ",") + ('"' + name + "\":") + member;
    return '{' + text + '}';
}

inline std::string normal(const std::string& text) { return text.empty() ? text : normal(json::parse(text)); }

template <class Condition>
bool eventually(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

inline constexpr char kTypes[] = R"(["websocket","long-polling"])";
inline constexpr char kRetry[] = R"({"reconnect":"retry","interval":0,"timeout":30000})";
inline constexpr char kHandshakeAdvice[] = R"({"reconnect":"handshake","interval":0,"timeout":30000})";
inline constexpr char kNone[] = R"({"reconnect":"none","interval":0,"timeout":30000})";

/// A server and clients of it. In texts $C is the id of the last client that shook hands, $RETRY, $AGAIN and $NONE
/// are the three kinds of advice.
class Bus
{
public:
    Bus() { server->start(); }
    ~Bus() { server->stop(); }

    BayeuxOrigin http(const std::string& session = {}) const { return {session, nullptr, "127.0.0.1"}; }
    BayeuxOrigin socket(const std::string& session = {}) { return {session, sink, "127.0.0.1"}; }

    std::string expand(std::string text) const
    {
        text = replaced(std::move(text), "$RETRY", kRetry);
        text = replaced(std::move(text), "$AGAIN", kHandshakeAdvice);
        text = replaced(std::move(text), "$NONE", kNone);
        text = replaced(std::move(text), "$T", kTypes);
        return replaced(std::move(text), "$C", client);
    }

    Future<std::string> post(const std::string& body, const BayeuxOrigin& origin)
    {
        return server->handle(expand(body), origin);
    }
    /// The reply, which has to be there at once.
    std::string ask(const std::string& body, const BayeuxOrigin& origin)
    {
        auto answer = post(body, origin);
        EXPECT_TRUE(answer.isReady()) << body;
        if (!answer.isReady())
            return "held";
        return normal(answer.get());
    }
    std::string ask(const std::string& body) { return ask(body, http()); }

    /// A client that shook hands and, if wanted, had its first connect.
    std::string join(const BayeuxOrigin& origin, bool connect = true, const std::string& ext = "{}")
    {
        const auto reply = server
                               ->handle(R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":)"
                                        R"(["long-polling","websocket"],"ext":)" +
                                            ext + "}]",
                                        origin)
                               .get();
        client = json::requireString(*json::asObject(json::asArray(json::parse(reply))->get(0)), "clientId");
        if (connect)
            ask(kConnect, origin);
        return client;
    }
    void subscribe(const std::string& channel, const BayeuxOrigin& origin)
    {
        const auto reply =
            ask(R"([{"channel":"/meta/subscribe","clientId":"$C","subscription":")" + channel + "\"}]", origin);
        EXPECT_NE(reply.find(R"("successful":true)"), std::string::npos) << reply;
    }
    std::string is(const std::string& text) const { return normal(expand(text)); }

    static constexpr char kConnect[] =
        R"([{"channel":"/meta/connect","clientId":"$C","connectionType":"long-polling","id":"c"}])";

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<RecordingSink> sink = std::make_shared<RecordingSink>();
    std::string client;
};

inline std::string event(const std::string& channel, const std::string& data)
{
    return R"({"channel":")" + channel + R"(","data":)" + data + "}";
}

} // namespace connector::bayeux
