#include "connector/bayeux/BayeuxFailure.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/common/Log.h"
#include "connector/core/Connector.h"
#include "connector/core/ServiceFault.h"
#include "connector/http/HttpBody.h"
#include "connector/json/JsonSerializer.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

namespace {

using Poco::JSON::Array;
using Poco::JSON::Object;

/// All three fields: some clients replace the advice they have as a whole.
Object::Ptr advice()
{
    Object::Ptr made = new Object;
    made->set("reconnect", "retry");
    made->set("interval", 1'000);
    made->set("timeout", 30'000);
    return made;
}

Object::Ptr replyTo(const Object& message)
{
    Object::Ptr reply = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
    const auto channel = message.get("channel");
    if (channel.isString())
        reply->set("channel", channel);
    if (message.has("id"))
        reply->set("id", message.get("id"));
    reply->set("successful", false);
    reply->set("error", "500::Internal error.");
    if (channel.isString() && (channel == std::string("/meta/connect") || channel == std::string("/meta/handshake")))
        reply->set("advice", advice());
    return reply;
}

void append(Array& replies, const Poco::Dynamic::Var& message)
{
    if (message.type() == typeid(Object::Ptr))
        replies.add(replyTo(*message.extract<Object::Ptr>()));
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
    try {
        const auto messages = json::parse(body);
        Array::Ptr replies = new Array;
        if (messages.type() == typeid(Array::Ptr)) {
            for (const auto& message : *messages.extract<Array::Ptr>())
                append(*replies, message);
        } else {
            append(*replies, messages);
        }
        return replies->empty() ? std::string() : json::write(replies);
    } catch (const json::JsonError&) {
        return {};
    }
}

} // namespace connector::bayeux
