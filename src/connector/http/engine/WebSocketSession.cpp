#include "connector/http/engine/WebSocketSession.h"

#include <optional>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>

#include "connector/http/engine/FrameStream.h"
#include "connector/http/engine/Peer.h"
#include "connector/http/engine/SoonExecutor.h"
#include "connector/http/engine/WebSocketOutbox.h"

namespace connector::http::engine {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::system::error_code;

namespace {

constexpr std::chrono::seconds kHandshakeTime{10};
constexpr std::chrono::seconds kCloseTime{2};
constexpr std::size_t kFramesAhead = 32;
/// Room kept for the next message; what a large one took is given back.
constexpr std::size_t kKeptReadBytes = 4u << 10;
/// Pings and pongs that a client may send in kControlWindow.
constexpr unsigned kMaxControlFrames = 100;
constexpr std::chrono::seconds kControlWindow{10};

constexpr std::uint16_t kAbnormal = 1006;
constexpr std::uint16_t kCloseCodesEnd = 5000;

using Handshake = beast::http::request<beast::http::empty_body>;

class WebSocketSession final : public Peer, public FrameStream::Owner
{
public:
    WebSocketSession(Stream stream, Loop& loop, std::unique_ptr<ConnectionCount> count, const WebSocketUpgrade& upgrade)
        : loop_(loop), count_(std::move(count)), endpoint_(upgrade.endpoint), options_(upgrade.options),
          outbox_(std::make_shared<WebSocketOutbox>(upgrade.options.maxQueuedBytes, stream.socket().native_handle())),
          stream_(std::move(stream), loop, *this, outbox_->turn())
    {}

    void start(const UpgradeAsked& asked, const HttpResponse& response);
    void writeNext();
    /// After what is queued.
    void closeInTurn(websocket::close_reason reason);
    void closeNow(websocket::close_reason reason);

    void woken() override { writeNext(); }
    void wokenLate() override
    {
        outbox_->lateTold();
        writeNext();
    }
    void stop() override { closeNow({websocket::close_code::going_away, "The connector is stopping."}); }
    void close() override
    {
        if (closeSent_)
            ended(closeSent_->code, std::string(closeSent_->reason.data(), closeSent_->reason.size()));
        else
            ended(kAbnormal, {});
    }
    bool isLate(Clock::time_point now) const noexcept override { return now >= deadline_; }
    void giveUp() override;

    void heard() override;
    std::shared_ptr<void> ownerPtr() override { return self(); }
    void messagesSent(std::size_t count, std::size_t payloadBytes) override { outbox_->written(count, payloadBytes); }
    void flushed() override { writeNext(); }
    void sendingFailed() override { close(); }

private:
    std::shared_ptr<WebSocketSession> self() { return std::static_pointer_cast<WebSocketSession>(shared_from_this()); }
    void setOptions(const HttpResponse& response);
    void accepted();
    void read();
    void pack(Frames message);
    void checkCloseCode();
    void countControlFrame(websocket::frame_type kind);
    void ended(std::uint16_t code, const std::string& reason);

    Loop& loop_;
    std::unique_ptr<ConnectionCount> count_;
    std::shared_ptr<WebSocketEndpoint> endpoint_;
    const WebSocketOptions options_;
    const std::shared_ptr<WebSocketOutbox> outbox_;
    websocket::stream<FrameStream, true> stream_;
    std::unique_ptr<Handshake> handshake_; ///< until it was answered
    beast::flat_buffer incoming_;
    Clock::time_point deadline_ = Clock::time_point::max();
    bool pinged_ = false; ///< since something was heard
    Clock::time_point controlWindow_;
    unsigned controlFrames_ = 0;
    bool opened_ = false;
    bool over_ = false;
    std::optional<websocket::close_reason> closeSent_;
    std::optional<websocket::close_reason> closeAfterQueue_;
    bool compressing_ = false; ///< agreed upon
    bool packing_ = false;     ///< a message is being compressed
};

/// What the endpoint holds: of the session no more than a name, so that it may outlive it.
class Handle final : public WebSocketConnection
{
public:
    Handle(std::weak_ptr<WebSocketSession> session, std::weak_ptr<Loop> loop, std::shared_ptr<WebSocketOutbox> outbox)
        : session_(std::move(session)), loop_(std::move(loop)), outbox_(std::move(outbox))
    {}

    bool send(std::string message, bool binary) override
    {
        return push(Frame(std::make_shared<const std::string>(std::move(message)), binary), SendWhen::soon);
    }
    bool send(std::shared_ptr<const std::string> text, SendWhen when) override
    {
        return push(Frame(std::move(text), false), when);
    }

    void close(std::uint16_t code, const std::string& reason) override
    {
        outbox_->close();
        onLoop([why = websocket::close_reason(websocket::close_code(code), reason)](WebSocketSession& session) {
            session.closeInTurn(why);
        });
    }

    bool waitForRoom(std::chrono::milliseconds patience) override { return outbox_->waitForRoom(patience); }

    std::size_t queuedBytes() const override { return outbox_->bytes(); }

private:
    bool push(Frame message, SendWhen when)
    {
        if (when == SendWhen::withNext)
            if (const auto loop = loop_.lock())
                loop->stayAwakeFor(this);
        switch (outbox_->push(std::move(message), when)) {
        case WebSocketOutbox::Pushed::done:
            return true;
        case WebSocketOutbox::Pushed::tell:
            if (const auto loop = loop_.lock())
                loop->wake(session_);
            return true;
        case WebSocketOutbox::Pushed::tellLate:
            if (const auto loop = loop_.lock())
                loop->wakeLate(session_);
            return true;
        case WebSocketOutbox::Pushed::overflow:
            onLoop([](WebSocketSession& session) {
                session.closeNow({websocket::close_code::policy_error, "The client does not read fast enough."});
            });
            return false;
        case WebSocketOutbox::Pushed::closed:
            break;
        }
        return false;
    }

    template <class Work>
    void onLoop(Work work)
    {
        if (const auto loop = loop_.lock())
            asio::post(loop->context(), [weak = session_, work = std::move(work)] {
                if (const auto session = weak.lock())
                    work(*session);
            });
    }

    const std::weak_ptr<WebSocketSession> session_;
    const std::weak_ptr<Loop> loop_;
    const std::shared_ptr<WebSocketOutbox> outbox_;
};

void WebSocketSession::setOptions(const HttpResponse& response)
{
    // A timer set anew with each message costs more than the message's frame; the loop looks after the idle ones.
    stream_.set_option(websocket::stream_base::timeout{kHandshakeTime, websocket::stream_base::none(), false});
    websocket::permessage_deflate deflate;
    deflate.server_enable = options_.compression;
    deflate.server_no_context_takeover = true;
    deflate.client_no_context_takeover = true;
    stream_.set_option(deflate);
    stream_.read_message_max(options_.maxMessageBytes);
    stream_.auto_fragment(false);
    stream_.set_option(websocket::stream_base::decorator(
        [this, fields = response.headers.fields(), protocol = options_.protocol](websocket::response_type& answer) {
            compressing_ = answer.count(beast::http::field::sec_websocket_extensions) > 0;
            for (const auto& [name, value] : fields)
                answer.insert(name, value);
            if (!protocol.empty())
                answer.set(beast::http::field::sec_websocket_protocol, protocol);
        }));
    stream_.control_callback([this](websocket::frame_type kind, beast::string_view) { countControlFrame(kind); });
}

void WebSocketSession::start(const UpgradeAsked& asked, const HttpResponse& response)
{
    setOptions(response);
    handshake_ = std::make_unique<Handshake>(beast::http::verb::get, asked.target, 11);
    handshake_->set(beast::http::field::host, asked.host);
    handshake_->set(beast::http::field::connection, "Upgrade");
    handshake_->set(beast::http::field::upgrade, "websocket");
    handshake_->set(beast::http::field::sec_websocket_key, asked.key);
    handshake_->set(beast::http::field::sec_websocket_version, "13");
    if (!asked.extensions.empty())
        handshake_->set(beast::http::field::sec_websocket_extensions, asked.extensions);
    stream_.async_accept(*handshake_, [self = self()](const error_code& error) {
        self->handshake_.reset();
        if (error || self->over_)
            self->close();
        else
            self->accepted();
    });
}

void WebSocketSession::accepted()
{
    opened_ = true;
    heard();
    if (!compressing_ && !stream_.next_layer().isTls())
        outbox_->allowDirect();
    endpoint_->opened(std::make_shared<Handle>(self(), loop_.weak_from_this(), outbox_));
    if (!over_) {
        writeNext();
        read();
    }
}

void WebSocketSession::read()
{
    auto taken = [self = self()](const error_code& error, std::size_t) {
        if (self->over_)
            return;
        if (error) {
            const auto& reason = self->stream_.reason();
            const bool tooBig = error == websocket::error::message_too_big;
            const bool told = error == websocket::error::closed && reason.code != websocket::close_code::none;
            return self->ended(tooBig ? 1009
                               : told ? static_cast<std::uint16_t>(reason.code)
                                      : kAbnormal,
                               told ? std::string(reason.reason.data(), reason.reason.size()) : std::string());
        }
        std::string message = beast::buffers_to_string(self->incoming_.data());
        self->incoming_.consume(self->incoming_.size());
        if (self->incoming_.capacity() > kKeptReadBytes)
            self->incoming_.shrink_to_fit();
        self->loop_.noteInput();
        self->endpoint_->received(std::move(message), self->stream_.got_binary());
        if (!self->over_)
            self->read();
    };
    stream_.async_read(incoming_, asio::bind_executor(SoonExecutor(loop_), std::move(taken)));
}

void WebSocketSession::heard()
{
    if (!opened_ || closeSent_)
        return;
    pinged_ = false;
    deadline_ = Clock::now() + options_.idleTime / 2;
}

void WebSocketSession::giveUp()
{
    if (!opened_ || closeSent_ || std::exchange(pinged_, true))
        return close();
    deadline_ = Clock::now() + options_.idleTime / 2;
    stream_.async_ping({}, [self = self()](const error_code&) {});
}

/// The library refuses the codes below 5000 that must not be sent; there are none above (RFC 6455 §7.4.2).
void WebSocketSession::checkCloseCode()
{
    if (stream_.reason().code >= kCloseCodesEnd)
        stream_.next_layer().answerCloseWith(static_cast<std::uint16_t>(websocket::close_code::protocol_error));
}

void WebSocketSession::countControlFrame(websocket::frame_type kind)
{
    if (kind == websocket::frame_type::close)
        return checkCloseCode();
    const auto now = Clock::now();
    if (now - controlWindow_ > kControlWindow) {
        controlWindow_ = now;
        controlFrames_ = 0;
    }
    if (++controlFrames_ == kMaxControlFrames) // not from within the read that calls this
        asio::post(stream_.get_executor(), [self = self()] {
            self->closeNow({websocket::close_code::policy_error, "Too many control frames."});
        });
}

/// Moves messages from the outbox to the stream, never more than a few ahead of the socket: what waits stays where it
/// is counted, and where control frames need not wait behind it.
void WebSocketSession::writeNext()
{
    if (!opened_ || over_ || closeSent_ || packing_)
        return;
    FrameStream& frames = stream_.next_layer();
    frames.takeTurn();
    if (frames.queued() < kFramesAhead) {
        auto next = outbox_->pop(compressing_ ? 1 : kFramesAhead - frames.queued());
        if (next.empty() && closeAfterQueue_ && frames.queued() == 0)
            return closeNow(*closeAfterQueue_);
        if (!next.empty() && compressing_)
            return pack(std::move(next));
        frames.enqueue(std::move(next));
    }
    frames.flush();
}

/// Compressed, a message is this client's own.
void WebSocketSession::pack(Frames message)
{
    packing_ = true;
    const auto one = std::make_shared<const Frame>(std::move(message.front()));
    stream_.binary(one->isBinary());
    stream_.async_write(asio::buffer(one->payload()), [self = self(), one](const error_code& error, std::size_t) {
        self->packing_ = false;
        self->outbox_->written(1, one->payload().size());
        if (self->over_)
            return;
        if (error)
            self->close();
        else if (self->stream_.next_layer().queued() == 0) // else `flushed` goes on
            self->writeNext();
    });
}

void WebSocketSession::closeInTurn(websocket::close_reason reason)
{
    closeAfterQueue_ = std::move(reason);
    writeNext();
}

/// Sends the close frame and gives the client a moment to answer it.
void WebSocketSession::closeNow(websocket::close_reason reason)
{
    if (over_ || closeSent_)
        return;
    outbox_->close();
    if (!opened_)
        return close();
    closeSent_ = reason;
    deadline_ = Clock::now() + kCloseTime;
    stream_.async_close(reason, [self = self()](const error_code&) { self->close(); });
}

void WebSocketSession::ended(std::uint16_t code, const std::string& reason)
{
    if (over_)
        return;
    const auto keep = self();
    over_ = true;
    outbox_->close();
    stream_.next_layer().close();
    count_.reset();
    loop_.remove(*this);
    const auto endpoint = std::move(endpoint_);
    if (opened_)
        endpoint->closed(code, reason);
}

} // namespace

void startWebSocket(Stream stream, Loop& loop, std::unique_ptr<ConnectionCount> count, const UpgradeAsked& asked,
                    const HttpResponse& response)
{
    auto session = std::make_shared<WebSocketSession>(std::move(stream), loop, std::move(count), *response.upgrade);
    loop.add(session);
    session->start(asked, response);
}

} // namespace connector::http::engine
