#include "connector/http/engine/Connection.h"

#include <algorithm>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "connector/http/engine/WebSocketSession.h"

namespace connector::http::engine {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t kMaxLingerBytes = 4u << 20;

} // namespace

Connection::Connection(Stream stream, Loop& loop, std::unique_ptr<ConnectionCount> count)
    : loop_(loop), count_(std::move(count)), stream_(std::move(stream)),
      ends_(endsOf(stream_.socket().native_handle())), requests_(*this, stream_, buffer_, loop)
{
    stranger_.emplace(loop.strangers(), *this);
    if (ends_.localPort != 0) {
        error_code ignored;
        stream_.socket().set_option(asio::ip::tcp::no_delay(true), ignored);
    }
}

Connection::~Connection() = default;

void Connection::start(bool welcome)
{
    if (!welcome && stream_.isTls())
        close();
    else if (!welcome)
        requests_.turnAway();
    else if (stream_.isTls())
        shakeHands();
    else
        requests_.begin();
}

void Connection::shakeHands()
{
    state_ = State::handshaking;
    allow(loop_.core().settings.headTimeout);
    stream_.handshake([self = self()](const error_code& error) {
        if (self->state_ != State::handshaking)
            return;
        if (error)
            return self->close();
        self->state_ = State::open;
        self->requests_.begin();
    });
}

void Connection::stop()
{
    if (state_ == State::open)
        requests_.stop();
    else
        close();
}

void Connection::close()
{
    if (state_ == State::closed)
        return;
    const auto self = shared_from_this();
    state_ = State::closed;
    stranger_.reset();
    requests_.cutOff();
    stream_.close();
    loop_.remove(*this);
    requests_.abandon();
}

bool Connection::isLate(Clock::time_point now) const noexcept
{
    return now >= deadline_ || (state_ == State::open && requests_.isLate(now));
}

void Connection::giveUp()
{
    if (state_ == State::open)
        requests_.giveUp();
    else
        close();
}

void Connection::watch(std::size_t limit)
{
    if (reading_)
        return;
    if (peerClosed_) {
        if (requests_.needsInput())
            close();
        return;
    }
    if (!buffer_.makeRoom(limit))
        return;
    if (stranger_)
        stranger_->hold(std::max(buffer_.capacity(), ReadBuffer::kIdleBytes) - ReadBuffer::kIdleBytes);
    reading_ = true;
    stream_.async_read_some(
        asio::buffer(buffer_.room(), buffer_.roomBytes()),
        [self = self()](const error_code& error, std::size_t count) { self->onRead(error, count); });
}

bool Connection::isStranger()
{
    if (stranger_ && admission_->isGranted())
        stranger_.reset();
    return stranger_.has_value();
}

void Connection::cancelRead()
{
    error_code ignored;
    stream_.socket().cancel(ignored);
}

void Connection::onRead(const error_code& error, std::size_t count)
{
    reading_ = false;
    if (state_ == State::closed)
        return;
    if (!error)
        buffer_.commit(count);
    if (state_ == State::lingering) // with TLS, whose end may have ended this read
        return drain();
    if ((!error || error == asio::error::operation_aborted) && requests_.onReadEnded())
        return;
    if (!error)
        return requests_.onInput();
    peerClosed_ = true;
    requests_.onPeerClosed(error != asio::error::eof && error != asio::ssl::error::stream_truncated);
}

void Connection::linger()
{
    state_ = State::lingering;
    allow(loop_.core().settings.lingerTimeout);
    stream_.finishSending([self = self()] {
        if (self->state_ != State::lingering || self->draining_)
            return;
        if (self->peerClosed_ || self->loop_.isStopping())
            return self->close();
        if (self->stream_.isTls() && self->reading_)
            self->cancelRead();
        else if (!self->reading_)
            self->drain();
    });
}

/// Past TLS: what the client still sends does not matter, and others may write over it.
void Connection::drain()
{
    buffer_.clear();
    if (stranger_)
        stranger_->hold(0);
    draining_ = true;
    reading_ = true;
    stream_.socket().async_read_some(asio::buffer(loop_.scratch().data(), loop_.scratch().size()),
                                     [self = self()](const error_code& error, std::size_t count) {
                                         self->reading_ = false;
                                         self->drainedBytes_ += count;
                                         if (self->state_ != State::lingering)
                                             return;
                                         if (error || self->drainedBytes_ > kMaxLingerBytes)
                                             self->close();
                                         else
                                             self->drain();
                                     });
}

void Connection::becomeWebSocket(const UpgradeAsked& asked, const HttpResponse& response)
{
    const auto self = shared_from_this();
    state_ = State::closed;
    stranger_.reset();
    stream_.putBack(buffer_.view());
    loop_.remove(*this);
    startWebSocket(std::move(stream_), loop_, std::move(count_), asked, response);
}

} // namespace connector::http::engine
