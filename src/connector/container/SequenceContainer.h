#pragma once

#include <memory>
#include <vector>

#include "connector/container/ContainerMessages.h"

namespace connector::container {

class SequenceContainerServiceProvider;

/// Messages of which one is served after the other, so that each may build on the answers before.
class CONNECTOR_API SequenceContainer final : public ServiceMessage<SequenceContainerServiceProvider>
{
public:
    std::vector<v1::ContainerRequest::Entry> entries;
    bool stopOnFailure = false; ///< what comes after a failure is not served

    MessageFuture deliverTo(std::shared_ptr<SequenceContainerServiceProvider> provider,
                            std::unique_ptr<Message>&& message, Address&& address,
                            std::shared_ptr<Context>&& context) override;
};

/// The answers, as many and in the same order; faults where messages failed or were not served.
class CONNECTOR_API SequenceContainerResponse final : public Message
{
public:
    std::vector<v1::ContainerResponse::Entry> entries;
};

/// Serves sequences.
class CONNECTOR_API SequenceContainerServiceProvider : public ServiceProviderAPI<SequenceContainerServiceProvider>
{
public:
    /// Answers with SequenceContainerResponse. `rest` is where the single messages go.
    virtual MessageFuture handleSequence(std::unique_ptr<SequenceContainer>&& message, Address&& rest,
                                         std::shared_ptr<Context>&& context) = 0;
};

} // namespace connector::container
