#include "connector/bayeux/BayeuxWebSocketEndpoint.h"

#include "connector/bayeux/BayeuxFailure.h"
#include "connector/bayeux/WhileThere.h"
#include "connector/core/Connector.h"
#include "connector/http/HttpSession.h"

namespace connector::bayeux {

namespace {

enum CloseCode : std::uint16_t
{
    goingAway = 1001,
    unsupportedData = 1003,
    invalidPayload = 1007,
    policyViolation = 1008,
    messageTooBig = 1009,
    tryAgainLater = 1013
};

CloseCode closeCodeOf(unsigned status)
{
    return status == 413 ? messageTooBig : status == 503 ? tryAgainLater : invalidPayload;
}

class Sink final : public BayeuxChannelSink
{
public:
    explicit Sink(std::shared_ptr<http::WebSocketConnection> connection) : connection_(std::move(connection)) {}
    bool send(const std::shared_ptr<const std::string>& frame, http::SendWhen when) override
    {
        return connection_->send(frame, when);
    }
    bool waitForRoom(std::chrono::milliseconds patience) override { return connection_->waitForRoom(patience); }
    std::size_t queuedBytes() const override { return connection_->queuedBytes(); }
    void close() override { connection_->close(goingAway); }

private:
    const std::shared_ptr<http::WebSocketConnection> connection_;
};

} // namespace

BayeuxWebSocketEndpoint::BayeuxWebSocketEndpoint(Address service, std::shared_ptr<Context> context,
                                                 std::string peerAddress, std::size_t maxMessageBytes)
    : service_(std::move(service)), context_(std::move(context)), peerAddress_(std::move(peerAddress)),
      maxWaitingBytes_(maxWaitingBytes(maxMessageBytes))
{}

void BayeuxWebSocketEndpoint::opened(std::shared_ptr<http::WebSocketConnection> connection)
{
    connection_ = std::move(connection);
    sink_ = std::make_shared<Sink>(connection_);
}

void BayeuxWebSocketEndpoint::received(std::string message, bool binary)
{
    if (binary)
        return refuse(unsupportedData, "Messages are text.");
    auto request = std::make_shared<const std::string>(std::move(message));
    bool full = false;
    {
        std::lock_guard lock(mutex_);
        if (refused_)
            return;
        full = waiting_.size() == kMaxWaiting || waitingBytes_ + request->size() > maxWaitingBytes_;
        if (!full && std::exchange(working_, true)) {
            waitingBytes_ += request->size();
            waiting_.push_back(std::move(request));
            return;
        }
    }
    if (full)
        return refuse(policyViolation, "Too many messages wait for their turn.");
    work(std::move(request));
}

void BayeuxWebSocketEndpoint::closed(std::uint16_t, const std::string&)
{
    bool idle = false;
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        idle = !std::exchange(working_, true);
    }
    context_->cancellation()->cancel();
    if (idle)
        work(next());
}

/// What waits is dropped: a client that broke the rules is not served any further.
void BayeuxWebSocketEndpoint::refuse(std::uint16_t code, const std::string& reason)
{
    {
        std::lock_guard lock(mutex_);
        if (std::exchange(refused_, true))
            return;
        waiting_.clear();
        waitingBytes_ = 0;
    }
    connection_->close(code, reason);
}

MessageFuture BayeuxWebSocketEndpoint::send(std::unique_ptr<Message> message) const noexcept
{
    try {
        return context_->connector()->handle(std::move(message), Address(service_), std::shared_ptr<Context>(context_));
    } catch (...) {
        return makeFailedFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

MessageFuture BayeuxWebSocketEndpoint::ask(const Text& text) const noexcept
{
    auto request = std::make_unique<BayeuxRequest>();
    request->body = text;
    request->origin.webSocket = sink_;
    request->origin.peerAddress = peerAddress_;
    if (const auto& session = context_->httpSession())
        request->origin.httpSessionId = session->id();
    return whileThere(send(std::move(request)), *context_->cancellation());
}

/// Handles the request and what waits, until there is nothing more or an answer has to be waited for. One thread at a
/// time.
void BayeuxWebSocketEndpoint::work(Text request)
{
    for (; request; request = next()) {
        auto answer = ask(request);
        if (!answer.isReady()) {
            answer.then([self = shared_from_this(), request](MessageFuture settled) {
                self->reply(settled, *request);
                self->work(self->next());
                return true;
            });
            return;
        }
        reply(answer, *request);
    }
}

/// Null when nothing waits; the service has been told then, if the socket is closed.
BayeuxWebSocketEndpoint::Text BayeuxWebSocketEndpoint::next()
{
    {
        std::lock_guard lock(mutex_);
        if (!waiting_.empty()) {
            auto request = std::move(waiting_.front());
            waiting_.pop_front();
            waitingBytes_ -= request->size();
            return request;
        }
        working_ = closed_; // nobody comes after the end
        if (!closed_)
            return nullptr;
    }
    send(std::make_unique<BayeuxWebSocketClosed>(sink_));
    return nullptr;
}

void BayeuxWebSocketEndpoint::reply(MessageFuture& settled, const std::string& request)
{
    try {
        const auto message = settled.get();
        tell(std::move(dynamic_cast<BayeuxResponse&>(*message).body));
    } catch (...) {
        const BayeuxFailure failure(std::current_exception());
        if (context_->cancellation()->isCancelled())
            return; // nobody is left to be told, and what the client said before it went still counts
        if (failure.status == 500)
            tell(failureReplies(request));
        else
            refuse(closeCodeOf(failure.status), failure.text);
    }
}

void BayeuxWebSocketEndpoint::tell(std::string replies) const
{
    if (!replies.empty())
        sink_->send(std::make_shared<const std::string>(std::move(replies)), http::SendWhen::soon);
}

} // namespace connector::bayeux
