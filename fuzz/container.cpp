// The body of a POST to the container route. Whatever it holds, it is refused with 400 or read; what was read is
// answered message by message, and the answer is JSON again, with the ids and in the order of the request.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "connector/container/ContainerHttpServiceProvider.h"
#include "connector/container/ContainerMessages.h"
#include "connector/core/ConnectorImpl2.h"
#include "connector/interpreter/InterpreterMessages.h"
#include "connector/interpreter/InterpreterWire.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializerImpl.h"
#include "connector/json/JsonText.h"

using namespace connector;
using namespace connector::container::v1;
using namespace connector::interpreter::v1;

namespace {

void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

using MessagePtr = std::unique_ptr<Message>;

/// Sends back what a message brought, in the class of its answer.
MessagePtr echo(ContainerRequest::Entry& entry)
{
    require(!entry.message == static_cast<bool>(entry.failure), "an entry is neither read nor failed, or both");
    if (entry.failure)
        return std::make_unique<Fault>(entry.failure);
    if (const auto* eval = dynamic_cast<Eval*>(entry.message.get())) {
        require(entry.type == "Eval", "a type was read as Eval");
        auto answer = std::make_unique<EvalResponse>();
        answer->valueText = answer->output.text = eval->code;
        return answer;
    }
    if (auto* call = dynamic_cast<FEval*>(entry.message.get())) {
        require(entry.type == "FEval" && call->results <= 100, "a type was read as FEval");
        auto answer = std::make_unique<FEvalResponse>();
        answer->results = std::move(call->arguments);
        answer->output.text = call->function;
        return answer;
    }
    if (dynamic_cast<Interrupt*>(entry.message.get()))
        return std::make_unique<InterruptResponse>(false);
    require(dynamic_cast<ContainerRequest*>(entry.message.get()), "a message of no registered type");
    return std::make_unique<Fault>("unknownType", entry.type);
}

/// In the place of dispatcher and interpreter. Keeps what the last request asked for.
class Echo final : public ServiceProvider
{
public:
    void start() override {}
    void stop() override {}
    bool isRunning() const override { return true; }

    MessageFuture deliver(MessagePtr&& message, Address&&, std::shared_ptr<Context>&&) override
    {
        auto& request = dynamic_cast<ContainerRequest&>(*message);
        require(request.entries.size() <= ContainerJsonSerialization::kMaxMessages, "too many messages");
        auto response = std::make_unique<ContainerResponse>();
        response->id = request.id;
        ids.clear();
        for (auto& entry : request.entries) {
            ids.push_back(entry.id);
            response->entries.push_back({entry.id, echo(entry)});
        }
        return makeReadyFuture<MessagePtr>(std::move(response));
    }

    std::vector<std::string> ids;
};

struct Route
{
    std::shared_ptr<ConnectorImpl2> connector = std::make_shared<ConnectorImpl2>("fuzz");
    std::shared_ptr<Echo> echo = std::make_shared<Echo>();
    std::shared_ptr<json::JsonSerializerImpl> serializer = std::make_shared<json::JsonSerializerImpl>();
    ContainerJsonSerialization containers{serializer};
    InterpreterJsonSerialization interpreter{serializer};
    std::shared_ptr<ContainerHttpServiceProvider> provider = std::make_shared<ContainerHttpServiceProvider>(serializer);

    Route() { connector->addServiceProvider("echo", echo); }

    MessagePtr post(std::string body)
    {
        auto request = std::make_unique<http::HttpRequest>();
        request->method = "POST";
        request->path = "/messageservice/container";
        request->headers.add("Content-Type", "application/json");
        request->body = std::move(body);
        return provider->handleHttp(std::move(request), Address{"echo"}, connector->newContext()).get();
    }
};

void checkAnswer(const std::string& body, const std::vector<std::string>& ids)
{
    json::Limits limits; // an answer describes what a request may write shorter
    limits.bytes = limits.members = std::size_t{1} << 30;
    limits.depth = json::kMaxWriteDepth;
    const auto object = json::asObject(json::parse(body, limits));
    if (json::requireString(*object, "type") != "ContainerResponse") {
        require(ids.size() == 1 && json::requireString(*object, "id") == ids.front(), "a bare answer has another id");
        return;
    }
    const auto messages = json::requireArray(*object, "messages");
    require(messages->size() == ids.size(), "not every message is answered");
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const auto message = json::asObject(messages->get(static_cast<unsigned>(i)));
        require(json::requireString(*message, "id") == ids[i], "an answer has another id than its message");
        require(!json::requireString(*message, "type").empty(), "an answer without a type");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Route route;
    route.echo->ids.clear();
    const auto message = route.post({reinterpret_cast<const char*>(data), size});
    const auto* answer = dynamic_cast<http::HttpResponse*>(message.get());
    require(answer && (answer->status == 200 || answer->status == 400), "neither 200 nor 400");
    if (answer->status == 200)
        checkAnswer(answer->body, route.echo->ids);
    else
        require(!answer->body.empty() && answer->body.size() < 2 * size + 1000, "a refusal is long, or says nothing");
    return 0;
}
