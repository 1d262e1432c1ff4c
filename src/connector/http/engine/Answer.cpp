#include "connector/http/engine/Answer.h"

#include "connector/common/Log.h"
#include "connector/core/Connector.h"
#include "connector/http/HttpText.h"
#include "connector/http/WebSocket.h"

namespace connector::http::engine {

namespace {

std::unique_ptr<HttpResponse> internalError(const std::string& cause, const RequestTrace& trace, ServerCore& core)
{
    ++core.failedRequests;
    common::log("connector.http", common::LogLevel::error, trace.line + " failed: " + cause);
    return refusal(trace.json, 500, "Internal error.");
}

std::unique_ptr<HttpResponse> unavailable(const char* cause, const RequestTrace& trace)
{
    common::log("connector.http", common::LogLevel::info, trace.line + " is unavailable: " + cause);
    return refusal(trace.json, 503, "Service unavailable.");
}

} // namespace

std::unique_ptr<HttpResponse> takeResponse(MessageFuture& settled, const RequestTrace& trace, ServerCore& core)
{
    try {
        std::unique_ptr<Message> message = settled.get();
        if (auto* response = dynamic_cast<HttpResponse*>(message.get())) {
            message.release();
            std::unique_ptr<HttpResponse> owned(response);
            const bool upgrades = owned->status == 101 && owned->upgrade && owned->upgrade->endpoint;
            if (upgrades || (owned->status >= 200 && owned->status <= 599))
                return owned;
            return internalError("answered with status " + std::to_string(owned->status), trace, core);
        }
        return internalError("answered with something else than a response", trace, core);
    } catch (...) {
        return failureResponse(std::current_exception(), trace, core);
    }
}

std::unique_ptr<HttpResponse> failureResponse(const std::exception_ptr& failure, const RequestTrace& trace,
                                              ServerCore& core)
{
    try {
        std::rethrow_exception(failure);
    } catch (const UnknownServiceProvider& error) {
        return unavailable(error.what(), trace);
    } catch (const HttpFault& fault) {
        return refusal(trace.json, fault.status(), fault.what());
    } catch (const FutureCancelled&) {
        return refusal(trace.json, 503, "The request was cancelled.");
    } catch (const std::exception& error) {
        // The failure of a stopped provider is told by its text only.
        if (std::string_view(error.what()) == "Service exists but is not running.")
            return unavailable(error.what(), trace);
        return internalError(error.what(), trace, core);
    } catch (...) {
        return internalError("unknown exception", trace, core);
    }
}

} // namespace connector::http::engine
