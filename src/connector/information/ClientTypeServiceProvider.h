#pragma once

#include "connector/container/ContainerServiceProvider.h"

namespace connector::information::v1 {

/// A filter of containers: puts the client type that a container names on its context. Answers that pass it are left as
/// they are.
class CONNECTOR_API ClientTypeServiceProvider final : public container::v1::ContainerServiceProvider
{
public:
    MessageFuture handleRequest(std::unique_ptr<container::v1::ContainerRequest>&& request, Address&& rest,
                                std::shared_ptr<Context>&& context) override;
};

} // namespace connector::information::v1
