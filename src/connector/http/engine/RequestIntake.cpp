#include "connector/http/engine/RequestIntake.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

#include "connector/http/engine/Connection.h"
#include "connector/http/engine/RemoteBody.h"
#include "connector/http/engine/RequestCycle.h"

namespace connector::http::engine {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t kBodyReadBytes = 256u << 10;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

std::unique_ptr<HttpRequest> makeRequest(RequestHead& head, const Connection& connection, bool secure)
{
    const SocketEnds& ends = connection.ends();
    auto request = std::make_unique<HttpRequest>();
    request->method = std::move(head.method);
    request->target = std::move(head.target);
    request->path = std::move(head.path);
    request->query = std::move(head.query);
    request->authority = std::move(head.authority);
    request->headers = std::move(head.headers);
    request->peerAddress = ends.peerAddress;
    request->localPort = ends.localPort;
    request->secure = secure;
    request->keepAlive = head.keepAlive;
    request->admission = connection.admission();
    return request;
}

} // namespace

RequestIntake::RequestIntake(RequestCycle& cycle, Connection& connection, Stream& stream, ReadBuffer& buffer,
                             Loop& loop)
    : cycle_(cycle), connection_(connection), stream_(stream), buffer_(buffer), loop_(loop), core_(loop.core()),
      body_(loop.sharedCore())
{}

void RequestIntake::begin()
{
    state_ = State::readingHead;
    headBegun_ = false;
    reader_.emplace(core_.limits);
    body_.forget();
    if (!connection_.isReading())
        buffer_.shrink();
    connection_.allow(requestNumber_ == 0 ? core_.settings.headTimeout : core_.idleTimeout);
    readHead();
}

void RequestIntake::onInput()
{
    if (state_ == State::readingHead)
        readHead();
    else if (body_.isReceiving())
        readBody();
}

void RequestIntake::cutOff()
{
    state_ = State::ended;
    body_.release();
}

void RequestIntake::end()
{
    cutOff();
    body_.drop();
}

bool RequestIntake::giveUp()
{
    if (state_ == State::readingHead && headBegun_)
        cycle_.refuse({408, "The request head took too long."});
    else if (body_.isReceiving())
        failBody({408, "The request body took too long."});
    else
        return false;
    return true;
}

void RequestIntake::readHead()
{
    if (buffer_.size() > 0 && !headBegun_) {
        headBegun_ = true;
        connection_.allow(core_.settings.headTimeout);
    }
    switch (reader_->read(buffer_.view())) {
    case RequestHeadReader::State::needMore:
        cycle_.onIdle();
        connection_.watch(core_.limits.headBytes);
        break;
    case RequestHeadReader::State::complete:
        beginBody();
        break;
    case RequestHeadReader::State::refused:
        cycle_.refuseHead(reader_->refused(), reader_->head());
        break;
    }
}

void RequestIntake::beginBody()
{
    RequestHead& head = reader_->head();
    buffer_.consume(reader_->headBytes());
    ++requestNumber_;
    cycle_.onHead(head);
    continueAsked_ = head.expectsContinue && (head.chunked || head.contentLength > 0) && buffer_.size() == 0;
    auto request = makeRequest(head, connection_, stream_.isTls());

    state_ = State::ended;
    body_.begin(head);
    switch (body_.read(buffer_)) {
    case IncomingBody::State::refused:
        return cycle_.refuse(body_.refused());
    case IncomingBody::State::complete:
        request->body = body_.takeText();
        break;
    case IncomingBody::State::needMore:
        request->pendingBody =
            std::make_shared<RemoteBody>(cycle_.self(), loop_.weak_from_this(), requestNumber_, body_.announced());
        break;
    }
    cycle_.serve(std::move(request));
}

void RequestIntake::receiveBody(std::uint64_t maxBytes, Promise<ReceivedBody> promise)
{
    if (!body_.isAwaited()) {
        promise.setException(FutureCancelled());
        return;
    }
    if (body_.beginReception(std::move(promise), maxBytes) == IncomingBody::State::refused)
        return failBody(body_.refused());
    if (!connection_.isReading())
        buffer_.growTo(static_cast<std::size_t>(
            std::min<std::uint64_t>(body_.announced().value_or(kBodyReadBytes), kBodyReadBytes)));
    connection_.allow(body_.receptionTime(maxBytes));
    if (continueAsked_)
        sendContinue();
    else
        readBody();
}

void RequestIntake::sendContinue()
{
    continueAsked_ = false;
    continuePending_ = true;
    asio::async_write(stream_, asio::buffer(kContinue), [this, cycle = cycle_.self()](const error_code& error, auto) {
        continuePending_ = false;
        if (cycle_.isOver())
            return;
        if (error)
            return connection_.close();
        if (!cycle_.respondDeferred() && body_.isReceiving())
            readBody();
    });
}

void RequestIntake::readBody()
{
    switch (body_.read(buffer_)) {
    case IncomingBody::State::refused:
        failBody(body_.refused());
        break;
    case IncomingBody::State::complete:
        endBody();
        break;
    case IncomingBody::State::needMore:
        connection_.watch(kBodyReadBytes);
        break;
    }
}

void RequestIntake::endBody()
{
    connection_.clearDeadline();
    if (!connection_.isReading())
        buffer_.shrink();
    connection_.watch(kPipelineBytes);
    cycle_.onWholeBody();
    body_.deliver();
}

void RequestIntake::failBody(const Refused& refused)
{
    ++core_.refusedRequests;
    connection_.clearDeadline();
    body_.fail(refused);
}

} // namespace connector::http::engine
