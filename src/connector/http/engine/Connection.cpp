#include "connector/http/engine/Connection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include "connector/common/Log.h"
#include "connector/http/WebSocket.h"
#include "connector/http/engine/PendingBody.h"
#include "connector/http/engine/WebSocketSession.h"

namespace connector::http::engine {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t kBodyReadBytes = 64u << 10;
constexpr std::size_t kUploadReadBytes = 256u << 10;
/// A large body that comes slower than this on the whole takes too long.
constexpr std::uint64_t kSlowestUpload = 256u << 10;
/// Pipelined bytes that are kept while a request is served; a client that sends more waits.
constexpr std::size_t kPipelineBytes = 16u << 10;
constexpr std::size_t kMaxLingerBytes = 4u << 20;
constexpr unsigned kMaxInARow = 8;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

} // namespace

Connection::Connection(Stream stream, Loop& loop, std::unique_ptr<ConnectionCount> count)
    : loop_(loop), core_(loop.core()), count_(std::move(count)), stream_(std::move(stream)),
      ends_(endsOf(stream_.socket().native_handle())), writer_(stream_, *this)
{
    if (ends_.localPort != 0) {
        error_code ignored;
        stream_.socket().set_option(asio::ip::tcp::no_delay(true), ignored);
    }
}

Connection::~Connection() = default;

void Connection::start(bool welcome)
{
    if (!welcome) {
        if (stream_.isTls())
            return close();
        closing_ = true;
        respond(refusal(false, 503, "Too many connections."));
    } else if (stream_.isTls()) {
        shakeHands();
    } else {
        nextRequest();
    }
}

void Connection::shakeHands()
{
    state_ = State::handshaking;
    setDeadline(core_.settings.headTimeout);
    stream_.handshake([self = self()](const error_code& error) {
        if (self->state_ != State::handshaking)
            return;
        if (error)
            self->close();
        else
            self->nextRequest();
    });
}

void Connection::stop()
{
    closing_ = true;
    switch (state_) {
    case State::serving:
        if (direct_ && !direct_->revoke())
            break; // the answer is under way; `answered` goes on
        respond(refusal(false, 503, "The connector is stopping."));
        abandonExchange();
        break;
    case State::readingBody:
        respond(refusal(false, 503, "The connector is stopping."));
        break;
    case State::sendingContinue: // its end sees that the loop stops
    case State::writing:
        break;
    default:
        close();
        break;
    }
}

void Connection::close()
{
    if (state_ == State::closed)
        return;
    const auto self = shared_from_this();
    state_ = State::closed;
    if (direct_)
        direct_->revoke();
    bodyHold_.reset();
    writer_.abandon();
    stream_.close();
    loop_.remove(*this);
    abandonExchange();
}

bool Connection::isLate(Clock::time_point now) const noexcept
{
    if (now >= deadline_)
        return true;
    if (state_ == State::writing)
        return writer_.isLate(now, core_.writeTimeout, core_.settings.minBodyRate);
    if (!isReceiving() || now - bodyBegin_ < core_.settings.bodyRateGrace)
        return false;
    const auto seconds = std::chrono::duration<double>(now - bodyBegin_).count();
    return static_cast<double>(bodyBytes_) < seconds * static_cast<double>(core_.settings.minBodyRate);
}

void Connection::giveUp()
{
    if (state_ == State::readingHead && headBegun_)
        refuse({408, "The request head took too long."});
    else if (state_ == State::readingBody)
        refuse({408, "The request body took too long."});
    else if (upload_)
        failUpload({408, "The request body took too long."});
    else
        close();
}

void Connection::nextRequest()
{
    state_ = State::readingHead;
    headBegun_ = false;
    isHead_ = false;
    reader_.emplace(core_.limits);
    body_.reset();
    upgradeAsked_.reset();
    if (!readPending_)
        buffer_.shrink();
    setDeadline(requestNumber_ == 0 ? core_.settings.headTimeout : core_.idleTimeout);
    readHead();
}

void Connection::readHead()
{
    if (buffer_.size() > 0 && !headBegun_) {
        headBegun_ = true;
        setDeadline(core_.settings.headTimeout);
    }
    switch (reader_->read(buffer_.view())) {
    case RequestHeadReader::State::needMore:
        inARow_ = 0;
        watch(core_.limits.headBytes);
        break;
    case RequestHeadReader::State::complete:
        beginBody();
        break;
    case RequestHeadReader::State::refused:
        isHead_ = reader_->head().method == "HEAD";
        refuse(reader_->refused());
        break;
    }
}

void Connection::beginBody()
{
    RequestHead& head = reader_->head();
    buffer_.consume(reader_->headBytes());
    ++requestNumber_;

    const int perConnection = core_.settings.parameters->getMaxKeepAliveRequests();
    const bool last = perConnection > 0 && requestNumber_ >= static_cast<std::uint64_t>(perConnection);
    closing_ = !head.keepAlive || last;
    http10_ = head.minorVersion == 0;
    keepAliveAsked_ = http10_ && head.keepAlive;
    isHead_ = head.method == "HEAD";
    continueAsked_ = head.expectsContinue && (head.chunked || head.contentLength > 0) && buffer_.size() == 0;
    body_.emplace(head, core_.limits.bodyBytes);

    request_ = std::make_unique<HttpRequest>();
    request_->method = std::move(head.method);
    request_->target = std::move(head.target);
    request_->path = std::move(head.path);
    request_->query = std::move(head.query);
    request_->authority = std::move(head.authority);
    request_->headers = std::move(head.headers);
    request_->peerAddress = ends_.peerAddress;
    request_->localPort = ends_.localPort;
    request_->secure = stream_.isTls();
    request_->keepAlive = head.keepAlive;
    if (asksForWebSocket(*request_))
        upgradeAsked_ = UpgradeAsked{request_->target, request_->authority, request_->headers.get("Sec-WebSocket-Key"),
                                     request_->headers.get("Sec-WebSocket-Extensions")};

    bodyBytes_ = 0;
    bodyComplete_ = false;
    bodyBegun_.clear();
    bodyBegin_ = Clock::now();
    state_ = State::readingBody;
    deadline_ = bodyBegin_ + core_.settings.bodyTimeout;
    if (body_->announced().value_or(0) > core_.settings.memoryBodyBytes)
        makeLarge();
    else if (continueAsked_)
        sendContinue();
    else
        readBody();
}

void Connection::sendContinue()
{
    state_ = State::sendingContinue;
    asio::async_write(stream_, asio::buffer(kContinue), [self = self()](const error_code& error, auto) {
        if (self->state_ != State::sendingContinue)
            return;
        if (error)
            return self->close();
        self->continueAsked_ = false;
        self->state_ = State::readingBody;
        if (self->loop_.isStopping())
            self->stop();
        else
            self->readBody();
    });
}

void Connection::readBody()
{
    std::string_view bytes = buffer_.view();
    const auto before = bytes.size();
    std::string_view content;
    const auto result = body_->read(bytes, content);
    bodyBytes_ += before - bytes.size();
    if (result == BodyReader::State::refused)
        return refuse(body_->refused());
    const bool kept = keepBody(content);
    buffer_.consume(before - bytes.size());
    bodyComplete_ = result == BodyReader::State::complete;
    if (!kept)
        return refuse({503, "Too many large requests at a time."});
    if (bodyComplete_)
        return serve();
    if (request_->body.size() > core_.settings.memoryBodyBytes)
        return makeLarge();
    if (request_->body.size() > kBodyReadBytes)
        buffer_.growTo(kBodyReadBytes);
    watch(kBodyReadBytes);
}

/// Counts what has arrived of the body; false when all bodies together are too large.
bool Connection::keepBody(std::string_view content)
{
    if (content.empty())
        return true;
    std::string& body = request_->body;
    // Room follows what has arrived, not what was announced; the last step is exact.
    if (body.capacity() < body.size() + content.size() && body_->announced())
        body.reserve(static_cast<std::size_t>(
            std::min<std::uint64_t>(body.size() + content.size() + body_->left(),
                                    std::max<std::uint64_t>(body.size() + content.size(), body.capacity() * 2))));
    body.append(content);
    if (!bodyHold_)
        bodyHold_ = std::make_shared<BodyHold>(loop_.sharedCore());
    return bodyHold_->growTo(body.size());
}

/// Has the request served before its body is there; who wants the body asks for it.
void Connection::makeLarge()
{
    bodyBegun_ = std::move(request_->body);
    request_->body.clear();
    request_->largeBody =
        std::make_shared<PendingBody>(self(), loop_.weak_from_this(), requestNumber_, body_->announced());
    serve();
}

void Connection::receiveBody(std::uint64_t requestNumber, std::uint64_t maxBytes, Promise<SpooledBody> promise)
{
    const bool served = state_ == State::serving && requestNumber_ == requestNumber && !deferred_;
    if (!served || upload_ || bodyComplete_)
        promise.setException(FutureCancelled());
    else if (body_->announced().value_or(0) > maxBytes)
        promise.setException(HttpFault(413, "The request body is too large."));
    else
        beginUpload(std::move(promise), maxBytes);
}

void Connection::beginUpload(Promise<SpooledBody> promise, std::uint64_t maxBytes)
{
    upload_.emplace(loop_.sharedCore(), std::move(promise), maxBytes);
    if (const auto refused = upload_->append(bodyBegun_))
        return failUpload(*refused);
    bodyBegun_ = {};
    bodyHold_.reset();
    if (!readPending_)
        buffer_.growTo(kUploadReadBytes);
    bodyBegin_ = Clock::now();
    bodyBytes_ = 0;
    const std::uint64_t most = body_->announced().value_or(std::min(maxBytes, core_.limits.bodyBytes));
    setDeadline(core_.settings.bodyTimeout + std::chrono::seconds(most / kSlowestUpload));
    if (continueAsked_)
        sendContinueForUpload();
    else
        readUpload();
}

void Connection::sendContinueForUpload()
{
    continueAsked_ = false;
    continuePending_ = true;
    asio::async_write(stream_, asio::buffer(kContinue), [self = self()](const error_code& error, auto) {
        self->continuePending_ = false;
        if (self->state_ == State::closed)
            return;
        if (error)
            return self->close();
        if (self->deferred_)
            return self->respond(std::move(self->deferred_));
        if (self->upload_)
            self->readUpload();
    });
}

void Connection::readUpload()
{
    std::string_view bytes = buffer_.view();
    const auto before = bytes.size();
    std::string_view content;
    const auto result = body_->read(bytes, content);
    bodyBytes_ += before - bytes.size();
    if (result == BodyReader::State::refused)
        return failUpload(body_->refused());
    if (const auto refused = upload_->append(content))
        return failUpload(*refused);
    buffer_.consume(before - bytes.size());
    if (result == BodyReader::State::complete)
        endUpload();
    else
        watch(kUploadReadBytes);
}

void Connection::endUpload()
{
    bodyComplete_ = true;
    clearDeadline();
    Upload complete = takeUpload();
    buffer_.shrink();
    watch(kPipelineBytes);
    complete.finish();
}

void Connection::failUpload(const Refused& refused)
{
    ++core_.refusedRequests;
    clearDeadline();
    takeUpload().fail(refused);
}

void Connection::dropUpload()
{
    if (upload_)
        takeUpload().drop();
}

Upload Connection::takeUpload()
{
    Upload taken = std::move(*upload_);
    upload_.reset();
    return taken;
}

void Connection::serve()
{
    state_ = State::serving;
    clearDeadline();
    if (request_->path == "*") {
        auto response = std::make_unique<HttpResponse>(204);
        response->headers.add("Allow", "GET, HEAD, POST, PUT, DELETE, OPTIONS");
        request_.reset();
        return respond(std::move(response));
    }

    RequestTrace trace{request_->method + " " + request_->path, prefersJson(request_->headers)};
    const bool large = request_->largeBody != nullptr;
    inFlight_ = true;
    ++core_.requests;
    ++core_.requestsInFlight;
    std::unique_ptr<HttpResponse> response;
    try {
        PocoHttpsServer::Exchange exchange = core_.handler(std::move(request_));
        if (exchange.answer.isReady()) {
            response = takeResponse(exchange.answer, trace, core_);
        } else {
            cancellation_ = std::move(exchange.cancellation);
            // The answer to a request whose body is still on its way depends on how much of it came.
            if (!stream_.isTls() && !large)
                direct_ = std::make_shared<DirectAnswer>(stream_.socket().native_handle(), terms());
            pending_ = exchange.answer.then(answerLater(trace));
        }
    } catch (...) {
        response = failureResponse(std::current_exception(), trace, core_);
    }
    if (response) {
        endExchange();
        respond(std::move(response));
    } else if (!large) {
        watch(kPipelineBytes);
    }
}

/// Writes the answer, or its beginning, and brings it to this connection's thread. A late one finds neither the
/// connection nor its loop when the server was closed meanwhile.
std::function<bool(MessageFuture)> Connection::answerLater(const RequestTrace& trace)
{
    return [weak = std::weak_ptr(self()), weakLoop = loop_.weak_from_this(), direct = direct_, hold = bodyHold_,
            number = requestNumber_, trace](MessageFuture settled) {
        const auto loop = weakLoop.lock();
        if (!loop)
            return false;
        auto response = takeResponse(settled, trace, loop->core());
        if (hold)
            hold->release();
        auto sent = direct ? direct->send(*response) : DirectAnswer::Sent();
        asio::post(loop->context(), [weak, number, response = std::move(response), sent = std::move(sent)]() mutable {
            const auto self = weak.lock();
            if (!self || self->state_ != State::serving || self->requestNumber_ != number)
                return;
            self->endExchange();
            self->answered(std::move(response), std::move(sent));
        });
        return true;
    };
}

void Connection::refuse(const Refused& refused)
{
    ++core_.refusedRequests;
    closing_ = true;
    request_.reset();
    respond(refusal(false, refused.status, refused.text));
}

ResponseTerms Connection::terms() const noexcept { return {closing_, keepAliveAsked_, isHead_, http10_}; }

void Connection::respond(std::unique_ptr<HttpResponse> response)
{
    if (continuePending_) {
        deferred_ = std::move(response);
        return;
    }
    state_ = State::writing;
    bodyHold_.reset();
    dropUpload();
    bodyBegun_ = {};
    if (response->upgrade)
        return upgrade(*response);
    // What is left of a body that nobody wanted cannot be told from a next request without reading it.
    const bool unread = body_ && !bodyComplete_;
    const bool untilEnd = response->producer && http10_;
    closing_ = closing_ || unread || untilEnd || loop_.isStopping();
    keepAliveAsked_ = keepAliveAsked_ && !closing_;
    auto head = writeHead(*response, loop_.date(), terms());
    write(std::move(response), std::move(head), 0);
}

/// Goes on behind what the thread that had the answer has sent of it.
void Connection::answered(std::unique_ptr<HttpResponse> response, DirectAnswer::Sent sent)
{
    if (sent.bytes == 0)
        return respond(std::move(response));
    state_ = State::writing;
    bodyHold_.reset();
    write(std::move(response), std::move(sent.head), sent.bytes);
}

void Connection::write(std::unique_ptr<HttpResponse> response, std::string head, std::size_t alreadySent)
{
    clearDeadline();
    const auto progress = writer_.start(std::move(response), std::move(head), terms(), alreadySent);
    if (progress == ResponseWriter::Progress::done && ++inARow_ > kMaxInARow) {
        inARow_ = 0;
        asio::post(stream_.get_executor(), [self = self()] {
            if (self->state_ == State::writing)
                self->responseWritten();
        });
    } else if (progress != ResponseWriter::Progress::waiting) {
        responseProgress(progress);
    }
}

void Connection::responseProgress(ResponseWriter::Progress progress)
{
    if (state_ != State::writing)
        return;
    if (progress == ResponseWriter::Progress::done) {
        responseWritten();
    } else {
        stream_.reset();
        close();
    }
}

void Connection::responseWritten()
{
    if (closing_ || loop_.isStopping())
        linger();
    else
        nextRequest();
}

/// Hands socket and place in the count to a WebSocket; this connection is over then.
void Connection::upgrade(const HttpResponse& response)
{
    if (!upgradeAsked_ || loop_.isStopping() || http10_ || !bodyComplete_) {
        closing_ = true;
        return respond(refusal(false, 400, "The request does not ask for a WebSocket."));
    }
    if (readPending_) {
        // One read is outstanding; what it brings belongs to the WebSocket.
        deferred_ = std::make_unique<HttpResponse>(101);
        deferred_->headers = response.headers;
        deferred_->upgrade = response.upgrade;
        error_code ignored;
        stream_.socket().cancel(ignored);
        return;
    }
    const auto self = shared_from_this();
    state_ = State::closed;
    stream_.putBack(buffer_.view());
    loop_.remove(*this);
    startWebSocket(std::move(stream_), loop_, std::move(count_), *upgradeAsked_, response);
}

/// Closes our side and waits for the client to close its own: a socket closed with unread bytes would tear down the
/// answer on its way.
void Connection::linger()
{
    state_ = State::lingering;
    bodyBytes_ = 0;
    setDeadline(core_.settings.lingerTimeout);
    stream_.finishSending([self = self()] {
        if (self->state_ != State::lingering)
            return;
        if (self->peerClosed_ || self->loop_.isStopping())
            return self->close();
        if (self->stream_.isTls() && self->readPending_) {
            error_code ignored;
            self->stream_.socket().cancel(ignored);
        } else if (!self->readPending_) {
            self->drain();
        }
    });
}

/// Past TLS: what the client still sends does not matter.
void Connection::drain()
{
    buffer_.consume(buffer_.size());
    buffer_.makeRoom(kPipelineBytes);
    readPending_ = true;
    stream_.socket().async_read_some(asio::buffer(buffer_.room(), buffer_.roomBytes()),
                                     [self = self()](const error_code& error, std::size_t count) {
                                         self->readPending_ = false;
                                         self->bodyBytes_ += count;
                                         if (self->state_ != State::lingering)
                                             return;
                                         if (error || self->bodyBytes_ > kMaxLingerBytes)
                                             self->close();
                                         else
                                             self->drain();
                                     });
}

/// The answer is there: nobody is left to be told that the client goes.
void Connection::endExchange()
{
    inFlight_ = false;
    --core_.requestsInFlight;
    cancellation_.reset();
    pending_ = {};
    direct_.reset();
}

void Connection::abandonExchange()
{
    if (!inFlight_)
        return;
    inFlight_ = false;
    --core_.requestsInFlight;
    direct_.reset();
    dropUpload();
    const auto token = std::move(cancellation_);
    auto pending = std::move(pending_);
    try {
        if (token)
            token->cancel();
        pending.cancel();
    } catch (const std::exception& error) {
        common::log("connector.http", common::LogLevel::error,
                    std::string("Cancelling a request failed: ") + error.what());
    }
}

/// Keeps one read outstanding, unless `limit` bytes wait already.
void Connection::watch(std::size_t limit)
{
    if (readPending_)
        return;
    if (peerClosed_) {
        if (state_ == State::readingHead || isReceiving())
            close();
        return;
    }
    if (!buffer_.makeRoom(limit))
        return;
    readPending_ = true;
    stream_.async_read_some(
        asio::buffer(buffer_.room(), buffer_.roomBytes()),
        [self = self()](const error_code& error, std::size_t count) { self->onRead(error, count); });
}

void Connection::onRead(const error_code& error, std::size_t count)
{
    readPending_ = false;
    if (state_ == State::closed)
        return;
    if (!error)
        buffer_.commit(count);
    if (state_ == State::lingering) // with TLS, whose end may have ended this read
        return drain();
    if (state_ == State::writing && deferred_ && deferred_->upgrade &&
        (!error || error == asio::error::operation_aborted))
        return upgrade(*std::exchange(deferred_, nullptr));
    if (error)
        return onPeerClosed(error != asio::error::eof && error != asio::ssl::error::stream_truncated);
    switch (state_) {
    case State::readingHead:
        readHead();
        break;
    case State::readingBody:
        readBody();
        break;
    case State::serving:
        if (upload_)
            readUpload();
        else
            watch(kPipelineBytes);
        break;
    default:
        break;
    }
}

void Connection::onPeerClosed(bool broken)
{
    peerClosed_ = true;
    const bool answering = (state_ == State::serving && !upload_) || state_ == State::writing;
    if (broken || !answering)
        return close();
    if (state_ == State::serving) {
        // Most clients are gone then; one that only closed its sending side still gets an answer that comes soon.
        setDeadline(core_.idleTimeout);
        if (cancellation_)
            cancellation_->cancel();
    }
}

} // namespace connector::http::engine
