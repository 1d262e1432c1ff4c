#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "connector/http/engine/Answer.h"
#include "connector/http/engine/BodyReader.h"
#include "connector/http/engine/DirectAnswer.h"
#include "connector/http/engine/Loop.h"
#include "connector/http/engine/Peer.h"
#include "connector/http/engine/ReadBuffer.h"
#include "connector/http/engine/RequestHead.h"
#include "connector/http/engine/ResponseWriter.h"
#include "connector/http/engine/SocketEnds.h"
#include "connector/http/engine/Stream.h"
#include "connector/http/engine/UpgradeAsked.h"
#include "connector/http/engine/Upload.h"

namespace connector::http::engine {

/// One client's connection: reads a request, has it served, writes the answer, and starts anew; one request at a time,
/// so that pipelined requests are answered in order. All of it runs on the thread of its loop, which outlives it; only
/// the answer itself may be written by the thread that has it (DirectAnswer).
class Connection final : public Peer, public ResponseWriter::Owner
{
public:
    Connection(Stream stream, Loop& loop, std::unique_ptr<ConnectionCount> count);
    ~Connection() override;

    /// One that is not welcome gets 503 without being read.
    void start(bool welcome);
    /// For the large body of request `requestNumber`, if that is still served.
    void receiveBody(std::uint64_t requestNumber, std::uint64_t maxBytes, Promise<SpooledBody> promise);

    /// Closes now, or after the answer to the request at work, which is 503.
    void stop() override;
    void close() override;
    bool isLate(Clock::time_point now) const noexcept override;
    void giveUp() override;

    std::shared_ptr<ResponseWriter::Owner> ownerPtr() override { return self(); }
    std::weak_ptr<Loop> weakLoop() override { return loop_.weak_from_this(); }
    void responseProgress(ResponseWriter::Progress progress) override;

private:
    enum class State
    {
        handshaking,
        readingHead,
        sendingContinue,
        readingBody,
        serving,
        writing,
        lingering,
        closed
    };

    std::shared_ptr<Connection> self() { return std::static_pointer_cast<Connection>(shared_from_this()); }
    void shakeHands();

    void nextRequest();
    void readHead();
    void beginBody();
    void sendContinue();
    void readBody();
    bool keepBody(std::string_view content);
    void beginUpload(Promise<SpooledBody> promise, std::uint64_t maxBytes);
    void sendContinueForUpload();
    void readUpload();
    void endUpload();
    void failUpload(const Refused& refused);
    void dropUpload();
    Upload takeUpload();
    bool isReceiving() const noexcept { return state_ == State::readingBody || upload_; }

    void serve();
    void makeLarge();
    std::function<bool(MessageFuture)> answerLater(const RequestTrace& trace);
    void refuse(const Refused& refused);
    void respond(std::unique_ptr<HttpResponse> response);
    void answered(std::unique_ptr<HttpResponse> response, DirectAnswer::Sent sent);
    void write(std::unique_ptr<HttpResponse> response, std::string head, std::size_t alreadySent);
    void responseWritten();
    void upgrade(const HttpResponse& response);
    ResponseTerms terms() const noexcept;
    void linger();
    void drain();
    void endExchange();
    void abandonExchange();

    void watch(std::size_t limit);
    void onRead(const boost::system::error_code& error, std::size_t count);
    void onPeerClosed(bool broken);

    void setDeadline(std::chrono::milliseconds fromNow) { deadline_ = Clock::now() + fromNow; }
    void clearDeadline() noexcept { deadline_ = Clock::time_point::max(); }

    Loop& loop_;
    ServerCore& core_;
    std::unique_ptr<ConnectionCount> count_;
    Stream stream_;
    const SocketEnds ends_;

    State state_ = State::readingHead;
    Clock::time_point deadline_ = Clock::time_point::max();
    bool closing_ = false; ///< after the current response
    bool readPending_ = false;
    bool peerClosed_ = false; ///< sent its last byte
    bool headBegun_ = false;
    std::uint64_t requestNumber_ = 0;
    unsigned inARow_ = 0; ///< responses written without leaving the stack
    ReadBuffer buffer_;

    std::optional<RequestHeadReader> reader_;
    std::unique_ptr<HttpRequest> request_;
    std::optional<BodyReader> body_;
    bool bodyComplete_ = false;
    bool continueAsked_ = false;
    bool continuePending_ = false;       ///< "100 Continue" is being written while the request is served
    std::uint64_t bodyBytes_ = 0;        ///< as received, for the rate
    std::shared_ptr<BodyHold> bodyHold_; ///< null for a request without a body in memory
    Clock::time_point bodyBegin_;
    std::string bodyBegun_; ///< what arrived of a chunked body before it became a large one
    std::optional<Upload> upload_;

    bool isHead_ = false;
    bool http10_ = false;
    bool keepAliveAsked_ = false;
    bool inFlight_ = false;
    std::optional<UpgradeAsked> upgradeAsked_;
    std::shared_ptr<CancellationToken> cancellation_;
    std::shared_ptr<DirectAnswer> direct_;
    Future<bool> pending_;                   ///< of the continuation that brings the answer
    std::unique_ptr<HttpResponse> deferred_; ///< waits for "100 Continue" to be written

    ResponseWriter writer_;
};

} // namespace connector::http::engine
