#include "ConsoleClients.h"

#include <algorithm>
#include <random>
#include <stdexcept>

#include "JsonView.h"

namespace {

using json_view::inside;
using json_view::member;
using json_view::quoted;

std::string postRequestTo(const Server& server, const std::string& path, const std::string& body)
{
    return postRequest(server.port, path, server.token, body);
}

// The host's own names, over HTTP and over the bus.
constexpr const char* kContainerPath = "/messageservice/container";
constexpr const char* kBusPath = "/messageservice/async";
constexpr std::string_view kEvalChannel = "/service/interpreter/eval";
constexpr std::string_view kStartChannel = "/service/interpreter/start";
constexpr std::string_view kEventsPrefix = "/interpreter/eval/";

class HostClient final : public ConsoleClient
{
public:
    explicit HostClient(const Server& server) : ConsoleClient(server, kBusPath, server.token)
    {
        socket_.send(R"([{"channel":"/meta/handshake","version":"1.0","supportedConnectionTypes":["websocket"]}])");
        const std::string answer = receive();
        for (const auto entry : json_view::elements(answer))
            id_ = quoted(inside(member(entry, "clientId")));
        if (id_.size() <= 2)
            throw std::runtime_error("no handshake: " + answer);
        connect();
    }

    void evaluate(const std::string& code) override { publish(kEvalChannel, code); }
    void run(const std::string& code) override { publish(kStartChannel, code); }

    std::size_t complete(const std::string& code) override
    {
        const auto answer = ask(R"({"type":"TabCompletion","id":"1","text":)" + quoted(code) + "}");
        return json_view::elements(member(answer, "candidates")).size();
    }

    void interrupt() override
    {
        const auto answer = ask(R"({"type":"Interrupt","id":"1"})");
        if (member(answer, "interrupted") != "true")
            throw std::runtime_error("nothing was interrupted: " + answer);
    }

private:
    std::string ask(const std::string& message)
    {
        return http().exchange(postRequestTo(server_, kContainerPath, message));
    }
    void connect()
    {
        socket_.send(R"([{"channel":"/meta/connect","connectionType":"websocket","clientId":)" + id_ + "}]");
    }
    void publish(std::string_view channel, const std::string& code)
    {
        socket_.send(R"([{"channel":")" + std::string(channel) + R"(","clientId":)" + id_ + R"(,"data":{"tag":)" +
                     std::to_string(++tag_) + R"(,"code":)" + quoted(code) + "}}]");
    }
    void take(const std::string& message, Evaluation& evaluation) override
    {
        for (const auto entry : json_view::elements(message)) {
            const auto channel = inside(member(entry, "channel"));
            const auto data = member(entry, "data");
            if (channel == "/meta/connect")
                connect();
            else if (member(entry, "successful") == "false")
                throw std::runtime_error("refused: " + std::string(entry));
            else if (!data.empty() && channel == kEvalChannel)
                takeAnswer(data, evaluation);
            else if (!data.empty() && channel.starts_with(kEventsPrefix))
                takeEvent(data, evaluation);
            else if (channel == kStartChannel && !member(data, "error").empty())
                throw std::runtime_error("not started: " + std::string(data));
        }
    }
    static void takeAnswer(std::string_view data, Evaluation& evaluation)
    {
        evaluation.value = inside(member(data, "text"));
        evaluation.error = member(data, "error");
        evaluation.lines += json_view::countLines(member(data, "output"));
        evaluation.ended = true;
    }
    static void takeEvent(std::string_view data, Evaluation& evaluation)
    {
        const auto kind = inside(member(data, "kind"));
        if (kind == "output")
            evaluation.lines += json_view::countLines(member(data, "text"));
        else if (kind == "result")
            evaluation.value = inside(member(data, "text"));
        else if (kind == "error")
            evaluation.error = data;
        else if (kind == "state")
            evaluation.ended = inside(member(data, "state")) == "ended";
    }

    std::string id_;
    unsigned tag_ = 0;
};

/// Frames of a letter and a text; see host_floor.cpp.
class FloorClient final : public ConsoleClient
{
public:
    explicit FloorClient(const Server& server) : ConsoleClient(server, "/", "") {}

    void evaluate(const std::string& code) override { socket_.send("e" + code); }
    void run(const std::string& code) override { socket_.send("s" + code); }

    std::size_t complete(const std::string& code) override
    {
        socket_.send("c" + code);
        const std::string answer = receive();
        return static_cast<std::size_t>(std::count(answer.begin(), answer.end(), '\n'));
    }

    void interrupt() override { http().exchange(postRequestTo(server_, "/interrupt", "")); }

private:
    void take(const std::string& message, Evaluation& evaluation) override
    {
        const auto rest = std::string_view(message).substr(1);
        switch (message.at(0)) {
        case 'o':
            evaluation.lines += static_cast<std::size_t>(std::count(rest.begin(), rest.end(), '\n'));
            return;
        case 'x':
            evaluation.error = rest;
            break;
        default:
            evaluation.value = rest.substr(0, rest.find('\n'));
        }
        evaluation.ended = true;
    }
};

/// The messages of a notebook server's kernel channels. An evaluation has ended when its reply is there and the kernel
/// says that it is idle again: only then has all output come.
class NotebookClient final : public ConsoleClient
{
public:
    explicit NotebookClient(const Server& server) : NotebookClient(server, std::to_string(std::random_device()())) {}

    void evaluate(const std::string& code) override { run(code); }
    void run(const std::string& code) override
    {
        replied_ = idle_ = false;
        request("execute_request", R"({"silent":false,"store_history":false,"user_expressions":{},"allow_stdin":false,)"
                                   R"("stop_on_error":false,"code":)" +
                                       quoted(code) + "}");
    }

    std::size_t complete(const std::string& code) override
    {
        request("complete_request",
                R"({"code":)" + quoted(code) + R"(,"cursor_pos":)" + std::to_string(code.size()) + "}");
        for (;;) {
            const std::string answer = receive();
            if (isAnswer(answer) && inside(member(answer, {"header", "msg_type"})) == "complete_reply")
                return json_view::elements(member(answer, {"content", "matches"})).size();
        }
    }

    void interrupt() override
    {
        http().exchange(postRequestTo(server_, kernelPath(server_) + "/interrupt?token=" + server_.token, ""));
    }

private:
    NotebookClient(const Server& server, const std::string& session)
        : ConsoleClient(server, kernelPath(server) + "/channels?session_id=" + session + "&token=" + server.token, ""),
          session_(session)
    {}
    static std::string kernelPath(const Server& server) { return "/api/kernels/" + server.kernel; }

    void request(const char* type, const std::string& content)
    {
        id_ = "m" + std::to_string(++count_);
        socket_.send(R"({"header":{"msg_id":")" + id_ + R"(","msg_type":")" + type +
                     R"(","username":"bench","session":")" + session_ +
                     R"(","version":"5.3"},"parent_header":{},"metadata":{},)"
                     R"("buffers":[],"channel":"shell","content":)" +
                     content + "}");
    }
    bool isAnswer(std::string_view message) const
    {
        return inside(member(message, {"parent_header", "msg_id"})) == id_ &&
               inside(member(message, {"parent_header", "session"})) == session_;
    }
    void take(const std::string& message, Evaluation& evaluation) override
    {
        if (!isAnswer(message))
            return;
        const auto type = inside(member(message, {"header", "msg_type"}));
        const auto content = member(message, "content");
        if (type == "execute_reply")
            replied_ = true;
        else if (type == "status")
            idle_ = inside(member(content, "execution_state")) == "idle";
        else if (type == "stream" && inside(member(content, "name")) == "stdout")
            evaluation.lines += json_view::countLines(member(content, "text"));
        else if (type == "execute_result")
            evaluation.value = inside(member(content, {"data", "text/plain"}));
        else if (type == "error")
            evaluation.error = member(content, "ename");
        evaluation.ended = replied_ && idle_;
    }

    const std::string session_; ///< of this client alone: answers to the others come here too
    std::string id_;
    unsigned count_ = 0;
    bool replied_ = false;
    bool idle_ = false;
};

} // namespace

ConsoleClient::ConsoleClient(const Server& server, const std::string& path, const std::string& token)
    : server_(server), socket_(server.port, path, token)
{}

bool ConsoleClient::advance(Evaluation& evaluation)
{
    std::string message;
    while (!evaluation.ended && socket_.next(message))
        take(message, evaluation);
    return evaluation.ended;
}

void ConsoleClient::finish(Evaluation& evaluation)
{
    while (!advance(evaluation))
        socket_.read();
}

std::string ConsoleClient::receive()
{
    std::string message;
    while (!socket_.next(message))
        socket_.read();
    return message;
}

HttpClient& ConsoleClient::http()
{
    if (!http_)
        http_ = std::make_unique<HttpClient>(server_.port);
    return *http_;
}

std::unique_ptr<ConsoleClient> makeClient(const Server& server)
{
    if (server.dialect == "ours")
        return std::make_unique<HostClient>(server);
    if (server.dialect == "floor")
        return std::make_unique<FloorClient>(server);
    if (server.dialect == "notebook")
        return std::make_unique<NotebookClient>(server);
    throw std::runtime_error("no dialect \"" + server.dialect + "\"");
}

std::string statelessRequest(const Server& server, const std::string& code)
{
    if (server.dialect == "ours")
        return postRequestTo(server, kContainerPath, R"({"type":"Eval","id":"1","code":)" + quoted(code) + "}");
    if (server.dialect == "floor")
        return postRequestTo(server, "/eval", code);
    return {};
}
