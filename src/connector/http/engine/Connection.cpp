#include "connector/http/engine/Connection.h"

#include <array>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include "connector/common/Log.h"
#include "connector/http/engine/Answer.h"

namespace connector::http::engine {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t kBodyReadBytes = 64u << 10;
/// Pipelined bytes that are kept while a request is served; a client that sends more waits.
constexpr std::size_t kPipelineBytes = 16u << 10;
constexpr std::size_t kMaxLingerBytes = 4u << 20;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

} // namespace

Connection::Connection(asio::ip::tcp::socket socket, Loop& loop, std::unique_ptr<ConnectionCount> count)
    : loop_(loop), core_(loop.core()), count_(std::move(count)), socket_(std::move(socket))
{
    error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    const auto remote = socket_.remote_endpoint(ignored);
    if (!ignored)
        peerAddress_ = remote.address().to_string();
    const auto local = socket_.local_endpoint(ignored);
    if (!ignored)
        localPort_ = local.port();
}

Connection::~Connection() = default;

void Connection::start() { nextRequest(); }

void Connection::turnAway()
{
    closing_ = true;
    respond(refusal(false, 503, "Too many connections."));
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
    error_code ignored;
    socket_.close(ignored);
    loop_.remove(*this);
    abandonExchange();
}

bool Connection::isLate(Clock::time_point now) const noexcept
{
    if (now >= deadline_)
        return true;
    if (state_ != State::readingBody || now - bodyBegin_ < core_.settings.bodyRateGrace)
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
    else
        close();
}

void Connection::nextRequest()
{
    state_ = State::readingHead;
    headBegun_ = false;
    isHead_ = false;
    reader_.emplace(core_.limits);
    chunks_.reset();
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
    keepAliveAsked_ = head.minorVersion == 0 && head.keepAlive;
    isHead_ = head.method == "HEAD";

    request_ = std::make_unique<HttpRequest>();
    request_->method = std::move(head.method);
    request_->target = std::move(head.target);
    request_->path = std::move(head.path);
    request_->query = std::move(head.query);
    request_->authority = std::move(head.authority);
    request_->headers = std::move(head.headers);
    request_->peerAddress = peerAddress_;
    request_->localPort = localPort_;
    request_->keepAlive = head.keepAlive;

    bodyLeft_ = head.contentLength;
    bodyBytes_ = 0;
    bodyBegin_ = Clock::now();
    if (head.chunked)
        chunks_.emplace(core_.limits.bodyBytes);
    state_ = State::readingBody;
    deadline_ = bodyBegin_ + core_.settings.bodyTimeout;
    if (head.expectsContinue && (head.chunked || head.contentLength > 0) && buffer_.size() == 0)
        sendContinue();
    else
        readBody();
}

void Connection::sendContinue()
{
    state_ = State::sendingContinue;
    asio::async_write(socket_, asio::buffer(kContinue), [self = shared_from_this()](const error_code& error, auto) {
        if (self->state_ != State::sendingContinue)
            return;
        if (error)
            return self->close();
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
    bool complete = false;
    if (chunks_) {
        const auto result = chunks_->read(bytes, request_->body);
        if (result == ChunkedBody::State::refused)
            return refuse(chunks_->refused());
        complete = result == ChunkedBody::State::complete;
    } else {
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(bodyLeft_, bytes.size()));
        std::string& body = request_->body;
        // Room follows what has arrived, not what was announced; the last step is exact.
        if (body.capacity() < body.size() + count)
            body.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(
                body.size() + bodyLeft_, std::max<std::uint64_t>(body.size() + count, body.capacity() * 2))));
        body.append(bytes.substr(0, count));
        bytes.remove_prefix(count);
        bodyLeft_ -= count;
        complete = bodyLeft_ == 0;
    }
    bodyBytes_ += before - bytes.size();
    buffer_.consume(before - bytes.size());
    if (!holdBody())
        refuse({503, "Too many large requests at a time."});
    else if (complete)
        serve();
    else
        watch(kBodyReadBytes);
}

/// Counts what has arrived of the body; false when all bodies together are too large.
bool Connection::holdBody()
{
    if (request_->body.empty())
        return true;
    if (!bodyHold_)
        bodyHold_ = std::make_shared<BodyHold>(loop_.sharedCore());
    return bodyHold_->growTo(request_->body.size());
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
            direct_ = std::make_shared<DirectAnswer>(
                DirectAnswer::Terms{socket_.native_handle(), closing_, keepAliveAsked_, isHead_});
            pending_ = exchange.answer.then(answerLater(trace));
        }
    } catch (...) {
        response = failureResponse(std::current_exception(), trace, core_);
    }
    if (response) {
        endExchange();
        respond(std::move(response));
    } else {
        watch(kPipelineBytes);
    }
}

/// Writes the answer, or its beginning, and brings it to this connection's thread. A late one finds neither the
/// connection nor its loop when the server was closed meanwhile.
std::function<bool(MessageFuture)> Connection::answerLater(const RequestTrace& trace)
{
    return [weak = weak_from_this(), weakLoop = loop_.weak_from_this(), direct = direct_, hold = bodyHold_,
            number = requestNumber_, trace](MessageFuture settled) {
        const auto loop = weakLoop.lock();
        if (!loop)
            return false;
        auto response = takeResponse(settled, trace, loop->core());
        if (hold)
            hold->release();
        auto sent = direct->send(*response);
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

void Connection::respond(std::unique_ptr<HttpResponse> response)
{
    state_ = State::writing;
    bodyHold_.reset();
    closing_ = closing_ || loop_.isStopping();
    response_ = std::move(response);
    head_ = writeHead(*response_, loop_.date(), closing_, keepAliveAsked_);
    written_ = 0;
    toWrite_ = head_.size() + bodyBytesToSend(*response_, isHead_);
    writeSome();
}

/// Goes on behind what the thread that had the answer has sent of it.
void Connection::answered(std::unique_ptr<HttpResponse> response, DirectAnswer::Sent sent)
{
    if (sent.bytes == 0)
        return respond(std::move(response));
    state_ = State::writing;
    response_ = std::move(response);
    bodyHold_.reset();
    head_ = std::move(sent.head);
    written_ = sent.bytes;
    toWrite_ = head_.size() + bodyBytesToSend(*response_, isHead_);
    if (written_ == toWrite_)
        responseWritten();
    else
        writeSome();
}

void Connection::responseWritten()
{
    response_.reset();
    head_.clear();
    if (closing_ || loop_.isStopping())
        linger();
    else
        nextRequest();
}

/// Closes our side and waits for the client to close its own: a socket closed with unread bytes would tear down the
/// answer on its way.
void Connection::linger()
{
    error_code ignored;
    socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    if (peerClosed_ || loop_.isStopping())
        return close();
    state_ = State::lingering;
    bodyBytes_ = 0;
    setDeadline(core_.settings.lingerTimeout);
    if (!readPending_) {
        buffer_.consume(buffer_.size());
        watch(kPipelineBytes);
    }
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
        if (state_ == State::readingHead || state_ == State::readingBody)
            close();
        return;
    }
    if (!buffer_.makeRoom(limit))
        return;
    readPending_ = true;
    socket_.async_read_some(
        asio::buffer(buffer_.room(), buffer_.roomBytes()),
        [self = shared_from_this()](const error_code& error, std::size_t count) { self->onRead(error, count); });
}

void Connection::onRead(const error_code& error, std::size_t count)
{
    readPending_ = false;
    if (state_ == State::closed)
        return;
    if (error)
        return onPeerClosed(error != asio::error::eof);
    buffer_.commit(count);
    switch (state_) {
    case State::readingHead:
        readHead();
        break;
    case State::readingBody:
        readBody();
        break;
    case State::serving:
        watch(kPipelineBytes);
        break;
    case State::lingering:
        bodyBytes_ += buffer_.size();
        buffer_.consume(buffer_.size());
        if (bodyBytes_ > kMaxLingerBytes)
            close();
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
    const bool answering = state_ == State::serving || state_ == State::writing;
    if (broken || !answering)
        return close();
    if (state_ == State::serving) {
        // Most clients are gone then; one that only closed its sending side still gets an answer that comes soon.
        setDeadline(core_.idleTimeout);
        if (cancellation_)
            cancellation_->cancel();
    }
}

void Connection::writeSome()
{
    setDeadline(core_.writeTimeout);
    std::array<asio::const_buffer, 2> buffers;
    if (written_ < head_.size()) {
        buffers[0] = asio::buffer(head_) + written_;
        buffers[1] = asio::buffer(response_->body.data(), toWrite_ - head_.size());
    } else {
        buffers[0] = asio::buffer(response_->body.data(), toWrite_ - head_.size()) + (written_ - head_.size());
    }
    socket_.async_write_some(buffers, [self = shared_from_this()](const error_code& error, std::size_t count) {
        if (self->state_ != State::writing)
            return;
        if (error)
            return self->close();
        self->written_ += count;
        if (self->written_ < self->toWrite_)
            self->writeSome();
        else
            self->responseWritten();
    });
}

} // namespace connector::http::engine
