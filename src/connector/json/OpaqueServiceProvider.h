#pragma once

#include <memory>
#include <string>
#include <utility>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"

namespace connector::json {

/// Serves messages whose content it does not look into.
class CONNECTOR_API OpaqueServiceProvider : public ServiceProviderAPI<OpaqueServiceProvider>
{
public:
    /// `message` is an OpaqueMessage. Fails with std::invalid_argument for one that this provider does not serve.
    virtual MessageFuture handleOpaque(std::unique_ptr<Message>&& message, Address&& address,
                                       std::shared_ptr<Context>&& context) = 0;

protected:
    /// Answers with `result`, or hands it on when the address names another provider.
    static MessageFuture answerOrForward(std::unique_ptr<Message> result, Address&& address,
                                         std::shared_ptr<Context>&& context);
};

class CONNECTOR_API OpaqueMessage : public ServiceMessage<OpaqueServiceProvider>
{
public:
    MessageFuture deliverTo(std::shared_ptr<OpaqueServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

/// Asks for the JSON text of a typed message; the answer is a JsonMessage.
struct CONNECTOR_API SerializeMessage final : OpaqueMessage
{
    explicit SerializeMessage(std::unique_ptr<Message> content) : message(std::move(content)) {}
    ~SerializeMessage() override;
    std::unique_ptr<Message> message;
};

/// A JSON text in UTF-8. As a request it asks for the typed message that the text describes.
struct CONNECTOR_API JsonMessage final : OpaqueMessage
{
    explicit JsonMessage(std::string json) : text(std::move(json)) {}
    ~JsonMessage() override;
    std::string text;
};

} // namespace connector::json
