#pragma once

#include <memory>
#include <string_view>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"

namespace connector::security::v1 {

/// What people and programs read who are not let in.
inline constexpr std::string_view kHowToGetIn =
    "Run `vendra --url` on this server's machine and open the address that it prints, as it is; each one works once. "
    "Programs send `Authorization: Bearer TOKEN` with the token of the server's discovery file.";

/// Whether a browser shows the answer to somebody, under a name that no other server has had.
CONNECTOR_API bool isShownToSomebody(const http::HttpRequest& request);

/// The one answer (401) for whoever shows nothing that lets in, whatever was wrong with what was shown.
CONNECTOR_API std::unique_ptr<http::HttpResponse> unauthorized(const http::HttpRequest& request);
CONNECTOR_API std::unique_ptr<http::HttpResponse> unauthorized(bool asPage, bool asJson);

} // namespace connector::security::v1
