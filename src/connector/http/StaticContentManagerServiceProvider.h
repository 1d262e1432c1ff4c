#pragma once

#include "connector/http/StaticContentManagerMessages.h"

namespace connector::http {

/// Adds and removes the folders that are served as content. Failures: std::invalid_argument naming a prefix or folder
/// that cannot be, or a prefix that has no root; std::length_error for too many roots.
class CONNECTOR_API StaticContentManagerServiceProvider : public ServiceProviderAPI<StaticContentManagerServiceProvider>
{
public:
    virtual Future<AddContentRootResponse> addContentRoot(const AddContentRoot& request) = 0;
    virtual Future<RemoveContentRootResponse> removeContentRoot(const RemoveContentRoot& request) = 0;
    virtual Future<ListContentRootsResponse> listContentRoots(const ListContentRoots& request) = 0;
};

} // namespace connector::http
