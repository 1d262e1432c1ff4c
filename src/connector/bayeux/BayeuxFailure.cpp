#include "connector/bayeux/BayeuxFailure.h"

#include "connector/bayeux/Replies.h"
#include "connector/common/Log.h"
#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"
#include "connector/http/HttpBody.h"
#include "connector/json/JsonSerializer.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

namespace {

/// When clients come again by themselves.
constexpr std::chrono::milliseconds kAgain(1'000);

std::string replyTo(const json::RawValue& message)
{
    const auto channel = json::rawString(message.member("channel")).value_or("");
    Reply reply(channel, false);
    reply.addId(idOf(message)).addError({500, "", "Internal error."});
    if (channel == "/meta/connect" || channel == "/meta/handshake") {
        BayeuxLimits limits;
        limits.interval = kAgain;
        reply.add("advice", adviceText(Reconnect::retry, limits));
    }
    return reply.take();
}

} // namespace

BayeuxFailure::BayeuxFailure(const std::exception_ptr& failure) : status(500), text("Internal error.")
{
    const auto unavailable = [this](const std::exception& error) {
        common::log("connector.bayeux", common::LogLevel::info, error.what());
        status = 503;
        text = "Service unavailable.";
    };
    const auto internal = [](const char* cause) {
        common::log("connector.bayeux", common::LogLevel::error, std::string("A request failed: ") + cause);
    };
    try {
        std::rethrow_exception(failure);
    } catch (const http::HttpFault& fault) {
        status = fault.status();
        text = fault.what();
    } catch (const UnknownServiceProvider& error) {
        unavailable(error);
    } catch (const FutureCancelled& error) {
        unavailable(error);
    } catch (const ServiceFault& fault) {
        if (fault.code() == "unavailable")
            unavailable(fault);
        else
            internal(fault.what());
    } catch (const std::exception& error) {
        // The failure of a stopped provider is told by its text only.
        if (std::string_view(error.what()) == "Service exists but is not running.")
            unavailable(error);
        else
            internal(error.what());
    } catch (...) {
        internal("unknown exception");
    }
}

std::string failureReplies(std::string_view body)
{
    std::string replies;
    try {
        for (const auto& message : json::parseRaw(body)) {
            if (message.isObject())
                replies.append(replies.empty() ? "" : ",").append(replyTo(message));
        }
    } catch (const json::JsonError&) {
        return {};
    }
    return replies.empty() ? replies : '[' + replies + ']';
}

} // namespace connector::bayeux
