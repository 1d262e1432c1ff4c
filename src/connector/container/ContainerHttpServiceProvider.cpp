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
constexpr std::size_t kLargeBytes = 1u << 20;

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

/// Reading a large body takes many times its size for a moment, which the allocator would keep.
void giveBackMemory(std::unique_ptr<http::HttpRequest> request)
{
    request.reset();
    ::malloc_trim(0);
}

std::unique_ptr<ContainerRequest> inContainer(std::unique_ptr<Message> message, const Poco::JSON::Object& object)
{
    auto request = std::make_unique<ContainerRequest>();
    request->bare = true;
    request->entries.push_back(
        {object.optValue<std::string>("id", {}), object.getValue<std::string>("type"), std::move(message), nullptr});
    return request;
}

} // namespace

ContainerHttpServiceProvider::ContainerHttpServiceProvider(std::shared_ptr<json::JsonSerializer> serializer)
    : serializer_(std::move(serializer))
{}

std::vector<std::string> ContainerHttpServiceProvider::methods() const { return {"POST"}; }

MessageFuture ContainerHttpServiceProvider::post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context)
{
    // Only this type cannot be posted by a form of a foreign page.
    if (!isJson(request->headers.get("Content-Type")))
        return makeReadyFuture<std::unique_ptr<Message>>(
            http::refusal(*request, 415, "Messages are posted as application/json."));

    auto whole = http::readWhole(std::move(request), kMaxBytes);
    if (whole.isReady())
        return handOn(whole.get(), std::move(rest), std::move(context));
    auto self = std::static_pointer_cast<ContainerHttpServiceProvider>(shared_from_this());
    return whole.then(
        [self, rest, context](Future<Request> received) { return self->handOn(received.get(), rest, context); });
}

std::unique_ptr<ContainerRequest> ContainerHttpServiceProvider::read(const std::string& body, bool& bare) const
{
    const auto value = json::parse(body);
    if (value.type() != typeid(Poco::JSON::Object::Ptr))
        throw json::JsonError("The body is not a JSON object.");
    const auto& object = *value.extract<Poco::JSON::Object::Ptr>();
    bare = object.has("type") && object.get("type") != std::string("ContainerRequest");
    auto message = bare || object.has("type") ? serializer_->fromJson(object) : nullptr;
    if (!message) {
        Poco::JSON::Object named(object);
        named.set("type", "ContainerRequest");
        message = serializer_->fromJson(named);
    }
    if (bare)
        return inContainer(std::move(message), object);
    return std::unique_ptr<ContainerRequest>(static_cast<ContainerRequest*>(message.release()));
}

MessageFuture ContainerHttpServiceProvider::handOn(Request request, Address rest, std::shared_ptr<Context> context)
{
    std::unique_ptr<ContainerRequest> container;
    bool bare = false;
    const bool large = request->body.size() > kLargeBytes;
    try {
        container = read(request->body, bare);
    } catch (const json::JsonError& error) {
        auto refused = http::refusal(*request, 400, error.what());
        if (large)
            giveBackMemory(std::move(request));
        return makeReadyFuture<std::unique_ptr<Message>>(std::move(refused));
    }
    if (large)
        giveBackMemory(std::move(request));

    return context->connector()
        ->handle(std::move(container), std::move(rest), std::shared_ptr<Context>(context))
        .then([serializer = serializer_, bare](MessageFuture answer) -> std::unique_ptr<Message> {
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
