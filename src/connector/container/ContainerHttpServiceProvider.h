#pragma once

#include <memory>

#include "connector/common/WorkerPool.h"
#include "connector/container/ContainerDispatcher.h"
#include "connector/http/HttpRouter.h"
#include "connector/http/HttpServiceProvider.h"
#include "connector/json/JsonSerializer.h"

namespace connector::container {

namespace v1 {

/// Where a container comes in over HTTP: POST of an `application/json` body, a ContainerRequest or one bare message.
/// The rest of the address gets the typed request; its answer goes back as JSON, status 200 also when messages failed.
class CONNECTOR_API ContainerHttpServiceProvider final : public http::RestServiceProvider
{
public:
    static constexpr std::uint64_t kMaxBytes = 64u << 20; ///< of one request

    explicit ContainerHttpServiceProvider(std::shared_ptr<json::JsonSerializer> serializer);

protected:
    std::vector<std::string> methods() const override;
    MessageFuture post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context) override;

private:
    /// What the rest of a request's way needs, on whichever thread.
    struct Way
    {
        std::shared_ptr<json::JsonSerializer> serializer;
        Address rest;
        std::shared_ptr<Context> context;
        bool answersJson; ///< also when it refuses
    };

    MessageFuture takeTurn(http::ReceivedBody body, const Way& way);
    static MessageFuture handOn(const std::string& body, const Way& way);

    const std::shared_ptr<json::JsonSerializer> serializer_;
    common::WorkerPool readers_; ///< of large bodies
};

/// The JSON form of requests, responses and faults (docs/protocol.md).
class CONNECTOR_API ContainerJsonSerialization final : public json::JsonSerialization
{
public:
    static constexpr std::size_t kMaxMessages = 1'000; ///< in one request

    explicit ContainerJsonSerialization(std::shared_ptr<json::JsonSerializer> serializer);
};

} // namespace v1

/// Adds the route "/messageservice/container".
class CONNECTOR_API ContainerHttpRouteProvider final : public http::HttpRouteProvider
{
public:
    static constexpr const char* kPath = "/messageservice/container";

    ContainerHttpRouteProvider(std::shared_ptr<http::HttpRouter> router, Address address);
};

} // namespace connector::container
