#include "connector/http/engine/RequestIntake.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

#include "connector/http/engine/Connection.h"
#include "connector/http/engine/PendingBody.h"
#include "connector/http/engine/RequestCycle.h"

namespace connector::http::engine {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t kBodyReadBytes = 64u << 10;
constexpr std::size_t kUploadReadBytes = 256u << 10;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

std::unique_ptr<HttpRequest> makeRequest(RequestHead& head, const SocketEnds& ends, bool secure)
{
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
    else if (state_ == State::readingBody)
        readBody();
    else if (body_.isUploading())
        readUpload();
}

void RequestIntake::cutOff()
{
    state_ = State::ended;
    body_.release();
}

void RequestIntake::end()
{
    cutOff();
    request_.reset();
    body_.dropUpload();
    body_.dropBeginning();
}

bool RequestIntake::giveUp()
{
    if (state_ == State::readingHead && headBegun_)
        cycle_.refuse({408, "The request head took too long."});
    else if (state_ == State::readingBody)
        cycle_.refuse({408, "The request body took too long."});
    else if (body_.isUploading())
        failUpload({408, "The request body took too long."});
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
    request_ = makeRequest(head, connection_.ends(), stream_.isTls());

    body_.begin(head);
    state_ = State::readingBody;
    connection_.setDeadline(body_.begun() + core_.settings.bodyTimeout);
    if (body_.isAnnouncedLarge())
        makeLarge();
    else if (continueAsked_)
        sendContinue();
    else
        readBody();
}

void RequestIntake::sendContinue()
{
    state_ = State::sendingContinue;
    asio::async_write(stream_, asio::buffer(kContinue), [this, cycle = cycle_.self()](const error_code& error, auto) {
        if (state_ != State::sendingContinue)
            return;
        if (error)
            return connection_.close();
        continueAsked_ = false;
        state_ = State::readingBody;
        if (loop_.isStopping())
            cycle_.stop();
        else
            readBody();
    });
}

void RequestIntake::readBody()
{
    switch (body_.read(buffer_, request_->body)) {
    case IncomingBody::State::refused:
        cycle_.refuse(body_.refused());
        break;
    case IncomingBody::State::complete:
        state_ = State::ended;
        cycle_.serve(std::move(request_));
        break;
    case IncomingBody::State::large:
        makeLarge();
        break;
    case IncomingBody::State::needMore:
        if (request_->body.size() > kBodyReadBytes)
            buffer_.growTo(kBodyReadBytes);
        connection_.watch(kBodyReadBytes);
        break;
    }
}

/// Has the request served before its body is there; who wants the body asks for it.
void RequestIntake::makeLarge()
{
    body_.setAside(std::move(request_->body));
    request_->body.clear();
    request_->largeBody =
        std::make_shared<PendingBody>(cycle_.self(), loop_.weak_from_this(), requestNumber_, body_.announced());
    state_ = State::ended;
    cycle_.serve(std::move(request_));
}

void RequestIntake::receiveBody(std::uint64_t maxBytes, Promise<SpooledBody> promise)
{
    if (body_.isUploading() || body_.isComplete())
        promise.setException(FutureCancelled());
    else if (body_.announced().value_or(0) > maxBytes)
        promise.setException(HttpFault(413, "The request body is too large."));
    else
        beginUpload(std::move(promise), maxBytes);
}

void RequestIntake::beginUpload(Promise<SpooledBody> promise, std::uint64_t maxBytes)
{
    if (body_.beginUpload(std::move(promise), maxBytes) == IncomingBody::State::refused)
        return failUpload(body_.refused());
    if (!connection_.isReading())
        buffer_.growTo(kUploadReadBytes);
    connection_.allow(body_.uploadTime(maxBytes));
    if (continueAsked_)
        sendContinueForUpload();
    else
        readUpload();
}

void RequestIntake::sendContinueForUpload()
{
    continueAsked_ = false;
    continuePending_ = true;
    asio::async_write(stream_, asio::buffer(kContinue), [this, cycle = cycle_.self()](const error_code& error, auto) {
        continuePending_ = false;
        if (cycle_.isOver())
            return;
        if (error)
            return connection_.close();
        if (!cycle_.respondDeferred() && body_.isUploading())
            readUpload();
    });
}

void RequestIntake::readUpload()
{
    switch (body_.readUpload(buffer_)) {
    case IncomingBody::State::refused:
        failUpload(body_.refused());
        break;
    case IncomingBody::State::complete:
        endUpload();
        break;
    default:
        connection_.watch(kUploadReadBytes);
        break;
    }
}

void RequestIntake::endUpload()
{
    connection_.clearDeadline();
    Upload complete = body_.takeUpload();
    buffer_.shrink();
    connection_.watch(kPipelineBytes);
    complete.finish();
}

void RequestIntake::failUpload(const Refused& refused)
{
    ++core_.refusedRequests;
    connection_.clearDeadline();
    body_.takeUpload().fail(refused);
}

} // namespace connector::http::engine
