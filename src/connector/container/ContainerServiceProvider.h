#pragma once

#include <functional>

#include "connector/container/ContainerMessages.h"

namespace connector::container::v1 {

/// Serves or filters whole containers.
class CONNECTOR_API ContainerServiceProvider : public ServiceProviderAPI<ContainerServiceProvider>
{
public:
    /// A filter hands the request on to `rest`, or, where `rest` is empty, answers with the request itself: the
    /// dispatcher then goes on with it. Any other answer stands in place of the dispatch.
    virtual MessageFuture handleRequest(std::unique_ptr<ContainerRequest>&& request, Address&& rest,
                                        std::shared_ptr<Context>&& context) = 0;

    /// Sees the answers before they leave; as above. The default leaves them as they are.
    virtual MessageFuture handleResponse(std::unique_ptr<ContainerResponse>&& response, Address&& rest,
                                         std::shared_ptr<Context>&& context);
};

/// Answers each entry with what `serve` makes of its message, in order and one call at a time; what it throws, or its
/// future fails with, becomes a Fault. `serve` is not kept.
CONNECTOR_API MessageFuture answerEach(std::unique_ptr<ContainerRequest> request,
                                       const std::function<MessageFuture(std::unique_ptr<Message>)>& serve);
/// The answer to a request of which every message failed.
CONNECTOR_API std::unique_ptr<ContainerResponse> refuseEach(std::unique_ptr<ContainerRequest> request,
                                                            const std::exception_ptr& failure);

} // namespace connector::container::v1
