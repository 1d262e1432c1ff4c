#pragma once

#include "connector/http/StaticContentManagerServiceProvider.h"
#include "connector/http/StaticContentService.h"

namespace connector::http {

/// Manages the roots of one service.
class CONNECTOR_API StaticContentManagerServiceProviderImpl final : public StaticContentManagerServiceProvider
{
public:
    explicit StaticContentManagerServiceProviderImpl(std::shared_ptr<StaticContentService> service)
        : service_(std::move(service))
    {}

    Future<AddContentRootResponse> addContentRoot(const AddContentRoot& request) override;
    Future<RemoveContentRootResponse> removeContentRoot(const RemoveContentRoot& request) override;
    Future<ListContentRootsResponse> listContentRoots(const ListContentRoots& request) override;

private:
    const std::shared_ptr<StaticContentService> service_;
};

} // namespace connector::http
