#pragma once

#include <memory>

#include "connector/http/HttpServiceProvider.h"
#include "connector/http/StaticContentService.h"

namespace connector::http {

/// Serves the files of a StaticContentService by the decoded path: GET and HEAD with conditions, ranges and
/// precompressed siblings. A folder without its '/' is led there; a folder is never listed.
class CONNECTOR_API StaticContentServiceProvider final : public RestServiceProvider
{
public:
    explicit StaticContentServiceProvider(std::shared_ptr<StaticContentService> service) : service_(std::move(service))
    {}

protected:
    std::vector<std::string> methods() const override { return {"GET"}; }
    MessageFuture get(Request&& request, Address&& rest, std::shared_ptr<Context>&& context) override;

private:
    std::unique_ptr<HttpResponse> answer(const HttpRequest& request) const;

    const std::shared_ptr<StaticContentService> service_;
};

} // namespace connector::http
