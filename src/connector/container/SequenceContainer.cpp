#include "connector/container/SequenceContainer.h"

namespace connector::container {

MessageFuture SequenceContainer::deliverTo(std::shared_ptr<SequenceContainerServiceProvider> provider,
                                           std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context)
{
    std::unique_ptr<SequenceContainer> sequence(static_cast<SequenceContainer*>(message.release()));
    return provider->handleSequence(std::move(sequence), std::move(address), std::move(context));
}

} // namespace connector::container
