#include "connector/bayeux/BayeuxLongPollServiceProvider.h"

#include "connector/bayeux/BayeuxFailure.h"
#include "connector/bayeux/BayeuxMessages.h"
#include "connector/bayeux/WhileThere.h"
#include "connector/core/Connector.h"
#include "connector/http/HttpSession.h"
#include "connector/http/HttpText.h"

namespace connector::bayeux {

namespace {

constexpr const char* kJson = "application/json";

bool isJson(std::string_view contentType)
{
    return http::equalsIgnoringCase(http::trimmed(contentType.substr(0, contentType.find(';'))), kJson);
}

std::unique_ptr<Message> answerWith(std::string replies)
{
    auto response = std::make_unique<http::HttpResponse>(200, kJson, std::move(replies));
    response->headers.add("Cache-Control", "no-store");
    return response;
}

/// Clients take an empty answer, "[]" too, for a broken connection; each message needs its reply.
std::unique_ptr<Message> answerFailed(const std::string& body)
{
    auto replies = failureReplies(body);
    if (replies.empty())
        throw http::HttpFault(400, "The body holds no messages.");
    return answerWith(std::move(replies));
}

std::unique_ptr<Message> answerOf(MessageFuture& settled, const std::string& body)
{
    try {
        const auto message = settled.get();
        auto& replies = dynamic_cast<BayeuxResponse&>(*message).body;
        if (replies.empty())
            throw std::runtime_error("A posted request got no reply.");
        return answerWith(std::move(replies));
    } catch (...) {
        const BayeuxFailure failure(std::current_exception());
        if (failure.status != 500)
            throw http::HttpFault(failure.status, failure.text);
        return answerFailed(body);
    }
}

MessageFuture handOn(std::unique_ptr<http::HttpRequest> request, const Address& rest,
                     const std::shared_ptr<Context>& context)
{
    auto message = std::make_unique<BayeuxRequest>();
    message->origin.peerAddress = request->peerAddress;
    if (const auto& session = context->httpSession())
        message->origin.httpSessionId = session->id();
    const auto body = std::make_shared<const std::string>(std::move(request->body));
    message->body = body;

    auto answer = context->connector()->handle(std::move(message), Address(rest), std::shared_ptr<Context>(context));
    return whileThere(std::move(answer), *context->cancellation()).then([body](MessageFuture settled) {
        return answerOf(settled, *body);
    });
}

} // namespace

MessageFuture BayeuxLongPollServiceProvider::post(Request&& request, Address&& rest, std::shared_ptr<Context>&& context)
{
    // Only this type cannot be posted by a form of a foreign page.
    if (!isJson(request->headers.get("Content-Type")))
        return makeReadyFuture<std::unique_ptr<Message>>(
            http::refusal(*request, 415, "Messages are posted as application/json."));

    const auto maxBytes = configuration_ ? configuration_->getInteger("bus.maxMessageBytes") : kMaxBytes;
    auto whole = http::readWhole(std::move(request), maxBytes + kMostTooLongBytes);
    if (whole.isReady())
        return handOn(whole.get(), rest, context);
    return whole.then([rest = std::move(rest), context = std::move(context)](Future<Request> received) {
        return handOn(received.get(), rest, context);
    });
}

} // namespace connector::bayeux
