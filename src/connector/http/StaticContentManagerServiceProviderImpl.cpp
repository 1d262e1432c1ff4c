#include "connector/http/StaticContentManagerServiceProviderImpl.h"

#include "platform/fl/filesystem.h"

namespace connector::http {

namespace {

template <class Response>
Future<Response> failed()
{
    return makeFailedFuture<Response>(std::current_exception());
}

} // namespace

Future<AddContentRootResponse> StaticContentManagerServiceProviderImpl::addContentRoot(const AddContentRoot& request)
{
    try {
        service_->addRoot({request.prefix, fl::filesystem::fromNative(request.folder), request.userFiles});
        AddContentRootResponse response;
        response.root = {request.prefix, request.folder, request.userFiles};
        return makeReadyFuture(std::move(response));
    } catch (...) {
        return failed<AddContentRootResponse>();
    }
}

Future<RemoveContentRootResponse>
StaticContentManagerServiceProviderImpl::removeContentRoot(const RemoveContentRoot& request)
{
    try {
        service_->removeRoot(request.prefix);
        RemoveContentRootResponse response;
        response.prefix = request.prefix;
        return makeReadyFuture(std::move(response));
    } catch (...) {
        return failed<RemoveContentRootResponse>();
    }
}

Future<ListContentRootsResponse> StaticContentManagerServiceProviderImpl::listContentRoots(const ListContentRoots&)
{
    ListContentRootsResponse response;
    for (const auto& root : service_->listRoots())
        response.roots.push_back({root.prefix, fl::filesystem::toNative(root.folder).string(), root.userFiles});
    return makeReadyFuture(std::move(response));
}

} // namespace connector::http
