#include "connector/http/engine/RequestCycle.h"

#include <boost/asio/post.hpp>

#include "connector/http/WebSocket.h"
#include "connector/http/engine/Connection.h"

namespace connector::http::engine {

namespace {

constexpr unsigned kMaxInARow = 8;

} // namespace

RequestCycle::RequestCycle(Connection& connection, Stream& stream, ReadBuffer& buffer, Loop& loop)
    : connection_(connection), stream_(stream), loop_(loop), core_(loop.core()),
      intake_(*this, connection, stream, buffer, loop), served_(*this, stream, loop), writer_(stream, *this)
{}

std::shared_ptr<RequestCycle> RequestCycle::self() { return {connection_.shared_from_this(), this}; }

void RequestCycle::begin()
{
    state_ = State::receiving;
    terms_.withoutBody = false;
    upgradeAsked_.reset();
    intake_.begin();
}

void RequestCycle::turnAway()
{
    terms_.closing = true;
    respond(refusal(false, 503, "Too many connections."));
}

void RequestCycle::stop()
{
    constexpr const char* kStopping = "The connector is stopping.";
    terms_.closing = true;
    if (state_ == State::serving) {
        if (!served_.revokeDirect())
            return; // the answer is under way; `receiveAnswer` goes on
        respond(refusal(false, 503, kStopping));
        abandon();
    } else if (state_ != State::writing) {
        connection_.close();
    }
}

bool RequestCycle::isLate(Clock::time_point now) const noexcept
{
    if (state_ == State::writing)
        return writer_.isLate(now, core_.writeTimeout, core_.settings.minBodyRate);
    return intake_.isLate(now);
}

void RequestCycle::giveUp()
{
    if (!intake_.giveUp())
        connection_.close();
}

void RequestCycle::cutOff()
{
    state_ = State::over;
    served_.revokeDirect();
    intake_.cutOff();
    writer_.abandon();
}

void RequestCycle::abandon()
{
    if (!served_.isInFlight())
        return;
    intake_.body().drop();
    served_.abandon();
}

void RequestCycle::onInput()
{
    if (state_ == State::serving && !intake_.body().isReceiving())
        connection_.watch(RequestIntake::kPipelineBytes);
    else
        intake_.onInput();
}

bool RequestCycle::onReadEnded()
{
    if (state_ != State::writing || !deferred_ || !deferred_->upgrade)
        return false;
    upgrade(*std::exchange(deferred_, nullptr));
    return true;
}

void RequestCycle::onPeerClosed(bool broken)
{
    const bool served = state_ == State::serving && !intake_.body().isReceiving();
    if (broken || (!served && state_ != State::writing))
        return connection_.close();
    if (served) {
        // Most clients are gone then; one that only closed its sending side still gets an answer that comes soon.
        connection_.allow(core_.idleTimeout);
        served_.tellClientGoes();
    }
}

void RequestCycle::onHead(const RequestHead& head)
{
    const int perConnection = core_.settings.parameters->getMaxKeepAliveRequests();
    const bool last = perConnection > 0 && intake_.requestNumber() >= static_cast<std::uint64_t>(perConnection);
    terms_.closing = !head.keepAlive || last;
    terms_.http10 = head.minorVersion == 0;
    terms_.keepAliveAsked = terms_.http10 && head.keepAlive;
    terms_.withoutBody = head.method == "HEAD";
}

void RequestCycle::serve(std::unique_ptr<HttpRequest> request)
{
    state_ = State::serving;
    connection_.clearDeadline();
    if (request->path == "*") {
        auto response = std::make_unique<HttpResponse>(204);
        response->headers.add("Allow", "GET, HEAD, POST, PUT, DELETE, OPTIONS");
        return respond(std::move(response));
    }
    if (asksForWebSocket(*request))
        upgradeAsked_ = UpgradeAsked{request->target, request->authority, request->headers.get("Sec-WebSocket-Key"),
                                     request->headers.get("Sec-WebSocket-Extensions")};
    const bool whole = request->pendingBody == nullptr;
    auto response = served_.begin(std::move(request), intake_.requestNumber(), terms_, intake_.body().hold());
    if (response)
        return respond(std::move(response));
    loop_.stayAwakeFor(this);
    if (whole)
        connection_.watch(RequestIntake::kPipelineBytes);
}

void RequestCycle::receiveBody(std::uint64_t requestNumber, std::uint64_t maxBytes, Promise<ReceivedBody> promise)
{
    if (state_ == State::serving && intake_.requestNumber() == requestNumber && !deferred_)
        intake_.receiveBody(maxBytes, std::move(promise));
    else
        promise.setException(FutureCancelled());
}

/// Goes on behind what the thread that had the answer has sent of it.
void RequestCycle::receiveAnswer(std::uint64_t requestNumber, std::unique_ptr<HttpResponse> response,
                                 DirectAnswer::Sent sent)
{
    if (state_ != State::serving || intake_.requestNumber() != requestNumber)
        return;
    served_.end();
    if (sent.bytes == 0)
        return respond(std::move(response));
    state_ = State::writing;
    intake_.body().release();
    write(std::move(response), std::move(sent.head), sent.bytes);
}

void RequestCycle::refuse(const Refused& refused)
{
    ++core_.refusedRequests;
    terms_.closing = true;
    respond(refusal(false, refused.status, refused.text));
}

void RequestCycle::refuseHead(const Refused& refused, const RequestHead& head)
{
    terms_.withoutBody = head.method == "HEAD";
    refuse(refused);
}

bool RequestCycle::respondDeferred()
{
    if (!deferred_)
        return false;
    respond(std::move(deferred_));
    return true;
}

void RequestCycle::respond(std::unique_ptr<HttpResponse> response)
{
    if (intake_.isContinuePending()) {
        deferred_ = std::move(response);
        return;
    }
    state_ = State::writing;
    intake_.end();
    const bool stranger = connection_.isStranger();
    if (response->upgrade)
        return upgrade(*response);
    // What is left of a body that nobody wanted cannot be told from a next request without reading it.
    const bool unread = intake_.body().isUnread();
    const bool untilEnd = response->producer && terms_.http10;
    const bool unwelcome = stranger && response->status >= 400;
    terms_.closing = terms_.closing || unread || untilEnd || unwelcome || loop_.isStopping();
    terms_.keepAliveAsked = terms_.keepAliveAsked && !terms_.closing;
    auto head = writeHead(*response, loop_.date(), terms_);
    write(std::move(response), std::move(head), 0);
}

void RequestCycle::write(std::unique_ptr<HttpResponse> response, std::string head, std::size_t alreadySent)
{
    connection_.clearDeadline();
    const auto progress = writer_.start(std::move(response), std::move(head), terms_, alreadySent);
    if (progress == ResponseWriter::Progress::done && ++inARow_ > kMaxInARow) {
        inARow_ = 0;
        boost::asio::post(stream_.get_executor(), [self = self()] {
            if (self->state_ == State::writing)
                self->responseWritten();
        });
    } else if (progress != ResponseWriter::Progress::waiting) {
        responseProgress(progress);
    }
}

void RequestCycle::responseProgress(ResponseWriter::Progress progress)
{
    if (state_ != State::writing)
        return;
    if (progress == ResponseWriter::Progress::done) {
        responseWritten();
    } else {
        stream_.reset();
        connection_.close();
    }
}

void RequestCycle::responseWritten()
{
    if (!terms_.closing && !loop_.isStopping() && !intake_.body().isUnread())
        return begin();
    state_ = State::over;
    connection_.linger();
}

/// Hands the connection over to a WebSocket.
void RequestCycle::upgrade(const HttpResponse& response)
{
    if (!upgradeAsked_ || loop_.isStopping() || terms_.http10 || !intake_.body().isComplete()) {
        terms_.closing = true;
        return respond(refusal(false, 400, "The request does not ask for a WebSocket."));
    }
    if (connection_.isReading()) {
        // One read is outstanding; what it brings belongs to the WebSocket.
        deferred_ = std::make_unique<HttpResponse>(101);
        deferred_->headers = response.headers;
        deferred_->upgrade = response.upgrade;
        return connection_.cancelRead();
    }
    state_ = State::over;
    connection_.becomeWebSocket(*upgradeAsked_, response);
}

} // namespace connector::http::engine
