#pragma once

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/core/ServiceFault.h"
#include "connector/core/ServiceProvider.h"

namespace connector::container::v1 {

class ContainerServiceProvider;

/// What lasts while a container is on its way, and ends with it whatever becomes of it: the destructor runs on any
/// thread and must not block.
class CONNECTOR_API ContainerScope
{
public:
    virtual ~ContainerScope();
    ContainerScope(const ContainerScope&) = delete;
    ContainerScope& operator=(const ContainerScope&) = delete;

protected:
    ContainerScope() = default;
};

using ContainerScopes = std::vector<std::shared_ptr<ContainerScope>>;

/// Several messages of a client in one request; each is answered, in the same order.
class CONNECTOR_API ContainerRequest final : public ServiceMessage<ContainerServiceProvider>
{
public:
    struct Entry
    {
        std::string id; ///< chosen by the client, echoed in the answer
        std::string type;
        std::unique_ptr<Message> message; ///< null when it could not be read
        std::exception_ptr failure;       ///< why
    };

    std::string id; ///< chosen by the client, echoed
    std::string clientType;
    std::vector<Entry> entries;
    bool bare = false;      ///< its one answer goes out alone: there is no room for others
    ContainerScopes scopes; ///< of filters; the dispatcher hands them on to the response

    MessageFuture deliverTo(std::shared_ptr<ContainerServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

/// The answers to a ContainerRequest.
class CONNECTOR_API ContainerResponse final : public ServiceMessage<ContainerServiceProvider>
{
public:
    struct Entry
    {
        std::string id;
        std::unique_ptr<Message> message; ///< a Fault where the message failed
    };

    std::string id;
    std::vector<Entry> entries;
    bool bare = false; ///< as in the request
    ContainerScopes scopes;

    MessageFuture deliverTo(std::shared_ptr<ContainerServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

/// The answer to a message that failed.
class CONNECTOR_API Fault final : public Message
{
public:
    Fault(std::string faultCode, std::string text) : code(std::move(faultCode)), message(std::move(text)) {}
    /// The client's view of any failure; what is not meant for clients becomes code "internal" with its text.
    explicit Fault(const std::exception_ptr& failure);

    std::string code;
    std::string message;
    ServiceFault::Details details;
};

} // namespace connector::container::v1
