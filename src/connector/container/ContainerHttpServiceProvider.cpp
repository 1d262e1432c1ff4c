#include "connector/container/ContainerHttpServiceProvider.h"

#include <malloc.h>

#include <Poco/JSON/Object.h>

#include "connector/container/ContainerMessages.h"
#include "connector/core/Connector.h"
#include "connector/json/JsonText.h"

namespace connector::container {
namespace v1 {
namespace {

constexpr const char* kJson = "application/json";
/// A larger body is read by a thread of its own: it may take milliseconds, in which other clients are served.
constexpr std::size_t kLargeBytes = 32u << 10;
/// Reading a larger one takes many times its size for a moment, which the allocator would keep.
constexpr std::size_t kTrimBytes = 1u << 20;
constexpr std::size_t kReaders = 2;
constexpr std::size_t kMaxWaiting = 256;

bool isJson(std::string_view contentType)
{
    const auto type = contentType.substr(0, contentType.find_first_of("; \t"));
    return type.size() == std::string_view(kJson).size() &&
           std::equal(type.begin(), type.end(), kJson,
                      [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
}

std::unique_ptr<http::HttpResponse> answerJson(std::string body)
{
    return std::make_unique<http::HttpResponse>(200, kJson, std::move(body));
}

std::unique_ptr<ContainerRequest> inContainer(std::unique_ptr<Message> message, const Poco::JSON::Object& object)
{
    auto request = std::make_unique<ContainerRequest>();
    request->bare = true;
    request->entries.push_back(
        {object.optValue<std::string>("id", {}), object.getValue<std::string>("type"), std::move(message), nullptr});
    return request;
}

/// `bare` for a message without a container around it.
std::unique_ptr<ContainerRequest> read(const json::JsonSerializer& serializer, const std::string& body, bool& bare)
{
    const auto value = json::parse(body);
    if (value.type() != typeid(Poco::JSON::Object::Ptr))
        throw json::JsonError("The body is not a JSON object.");
    const auto& object = *value.extract<Poco::JSON::Object::Ptr>();
    bare = object.has("type") && object.get("type") != std::string("ContainerRequest");
    auto message = bare || object.has("type") ? serializer.fromJson(object) : nullptr;
    if (!message) {
        Poco::JSON::Object named(object);
        named.set("type", "ContainerRequest");
        message = serializer.fromJson(named);
    }
    if (bare)
        return inContainer(std::move(message), object);
    return std::unique_ptr<ContainerRequest>(static_cast<ContainerRequest*>(message.release()));
}

} // namespace

ContainerHttpServiceProvider::ContainerHttpServiceProvider(std::shared_ptr<json::JsonSerializer> serializer)
    : serializer_(std::move(serializer)), readers_(kReaders, kMaxWaiting)
{}

std::vector<std::string> ContainerHttpServiceProvider::methods() const { return {"POST"}; }

MessageFuture ContainerHttpServiceProvider::post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context)
{
    // Only this type cannot be posted by a form of a foreign page.
    if (!isJson(request->headers.get("Content-Type")))
        return makeReadyFuture<std::unique_ptr<Message>>(
            http::refusal(*request, 415, "Messages are posted as application/json."));

    const Way way{serializer_, std::move(rest), std::move(context), http::prefersJson(request->headers)};
    if (!request->pendingBody)
        return handOn(request->body, way);
    auto self = std::static_pointer_cast<ContainerHttpServiceProvider>(shared_from_this());
    return request->pendingBody->receive(kMaxBytes).then(
        [self, way](Future<http::ReceivedBody> received) { return self->takeTurn(received.get(), way); });
}

/// Reads the body on this thread when it is small.
MessageFuture ContainerHttpServiceProvider::takeTurn(http::ReceivedBody body, const Way& way)
{
    if (body.size <= kLargeBytes)
        return handOn(body.text, way);
    const auto turn = std::make_shared<Promise<bool>>();
    // The thread that gives the turn goes on with what waits for it.
    auto answer =
        turn->future().then([way, held = std::make_shared<http::ReceivedBody>(std::move(body))](Future<bool> given) {
            given.get();
            const bool trims = held->size > kTrimBytes;
            auto handled = handOn(http::textOf(std::move(*held)), way);
            if (trims)
                ::malloc_trim(0);
            return handled;
        });
    if (!readers_.post([turn] { turn->setValue(true); }))
        turn->setException(http::HttpFault(503, "Too many large requests at a time."));
    return answer;
}

MessageFuture ContainerHttpServiceProvider::handOn(const std::string& body, const Way& way)
{
    std::unique_ptr<ContainerRequest> container;
    bool bare = false;
    try {
        container = read(*way.serializer, body, bare);
    } catch (const json::JsonError& error) {
        return makeReadyFuture<std::unique_ptr<Message>>(http::refusal(way.answersJson, 400, error.what()));
    }
    return way.context->connector()
        ->handle(std::move(container), Address(way.rest), std::shared_ptr<Context>(way.context))
        .then([serializer = way.serializer, bare](MessageFuture answer) -> std::unique_ptr<Message> {
            auto message = answer.get();
            auto* response = dynamic_cast<ContainerResponse*>(message.get());
            if (!bare || !response)
                return answerJson(serializer->write(*message));

            auto& entry = response->entries.at(0);
            auto object = serializer->toJson(*entry.message);
            object->set("id", entry.id);
            return answerJson(json::write(Poco::Dynamic::Var(object)));
        });
}

} // namespace v1

ContainerHttpRouteProvider::ContainerHttpRouteProvider(std::shared_ptr<http::HttpRouter> router, Address address)
    : HttpRouteProvider(std::move(router))
{
    add(kPath, std::move(address));
}

} // namespace connector::container
