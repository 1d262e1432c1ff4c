#pragma once

#include <memory>
#include <string>

#include "connector/http/HttpMessage.h"
#include "connector/http/engine/ServerCore.h"

namespace connector::http::engine {

/// What is kept of a request while it is served, to answer for its failure.
struct RequestTrace
{
    std::string line; ///< method and path, for the log
    bool json = false;
};

/// The response in a settled future. A provider that is missing or stopped makes a 503; any other failure a 500 whose
/// cause goes to the log only. Any thread.
std::unique_ptr<HttpResponse> takeResponse(MessageFuture& settled, const RequestTrace& trace, ServerCore& core);

/// The response for an exception.
std::unique_ptr<HttpResponse> failureResponse(const std::exception_ptr& failure, const RequestTrace& trace,
                                              ServerCore& core);

} // namespace connector::http::engine
