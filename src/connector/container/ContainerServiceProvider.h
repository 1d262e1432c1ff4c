#pragma once

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

} // namespace connector::container::v1
