#pragma once

#include <memory>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"
#include "connector/http/content/FoundContent.h"

namespace connector::http::content {

/// Up to this many bytes an answer holds in memory; more are sent from the file.
inline constexpr std::uint64_t kMaxBytesInMemory = 65'536;

/// The answer to GET or HEAD for a file that was found: 200, 206, 304, 412 or 416. Throws HttpFault (503) when the file
/// shrinks while it is read.
CONNECTOR_API std::unique_ptr<HttpResponse> answerWithFile(const HttpRequest& request, FoundContent&& found);

} // namespace connector::http::content
