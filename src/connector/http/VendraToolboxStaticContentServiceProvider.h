#pragma once

#include "connector/http/HttpServiceProvider.h"

namespace connector::http {

/// Lets pages name the release of what they load: the segment "~RELEASE" of "/vendra/toolbox/~RELEASE/rest" is taken
/// out of the path before anybody else looks at it, and the answer may be kept for a year, as another release has
/// another path. RELEASE: 1 to 64 letters, digits, dots, hyphens and underscores, the first no dot. Other requests go
/// on as they are.
class CONNECTOR_API VendraToolboxStaticContentServiceProvider final : public HttpServiceProvider
{
public:
    MessageFuture handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                             std::shared_ptr<Context>&& context) override;
};

} // namespace connector::http
