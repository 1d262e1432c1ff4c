#pragma once

#include <memory>
#include <string>

#include <Poco/JSON/Object.h>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"

namespace connector::hitchhiker::v1 {

class HitchhikerServiceProvider;

/// Queues a message for the next answer to a session's client.
class CONNECTOR_API QueueHitchhiker final : public ServiceMessage<HitchhikerServiceProvider>
{
public:
    std::string session; ///< public id; empty: all sessions that were answered lately
    Poco::JSON::Object::Ptr message;

    MessageFuture deliverTo(std::shared_ptr<HitchhikerServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API QueueHitchhikerResponse final : public Message
{
public:
    explicit QueueHitchhikerResponse(std::size_t reached) : sessions(reached) {}
    std::size_t sessions; ///< for how many it waits
};

/// A queued message among the answers of a container, in an entry without an id.
class CONNECTOR_API Hitchhiker final : public Message
{
public:
    Hitchhiker(Poco::JSON::Object::Ptr content, std::size_t droppedBefore)
        : message(std::move(content)), dropped(droppedBefore)
    {}
    Poco::JSON::Object::Ptr message; ///< shared; not to be changed
    std::size_t dropped;             ///< older ones that gave way
};

} // namespace connector::hitchhiker::v1
