#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "connector/http/engine/DirectAnswer.h"
#include "connector/http/engine/Loop.h"
#include "connector/http/engine/RequestHead.h"
#include "connector/http/engine/RequestIntake.h"
#include "connector/http/engine/ResponseWriter.h"
#include "connector/http/engine/ServedRequest.h"
#include "connector/http/engine/UpgradeAsked.h"

namespace connector::http::engine {

class Connection;

/// What one client asks over its connection: has a request served, writes the answer, and starts anew; one request at a
/// time, so that pipelined requests are answered in order. Part of its connection, and on the thread of its loop; only
/// the answer itself may be written by the thread that has it (DirectAnswer).
class RequestCycle final : public ResponseWriter::Owner
{
public:
    using Clock = std::chrono::steady_clock;

    /// All live as long as this.
    RequestCycle(Connection& connection, Stream& stream, ReadBuffer& buffer, Loop& loop);

    /// Keeps the connection alive.
    std::shared_ptr<RequestCycle> self();

    /// The first request, or the next.
    void begin();
    /// A client that is not welcome: 503 without being read.
    void turnAway();
    /// Closes the connection now, or after the answer to the request at work, which is 503.
    void stop();
    bool isLate(Clock::time_point now) const noexcept;
    void giveUp();

    /// The connection is closed: nothing is sent any more, nor is what comes of use.
    void cutOff();
    /// Nobody waits for the request at work.
    void abandon();
    bool isOver() const noexcept { return state_ == State::over; }

    /// Somebody works on a request.
    bool isServing() const noexcept { return state_ == State::serving; }
    /// Nothing goes on without more bytes from the client.
    bool needsInput() const noexcept { return intake_.needsInput(); }
    /// There is more in the buffer.
    void onInput();
    /// The connection reads nothing now. True when an upgrade waited for that, and is made.
    bool onReadEnded();
    /// The client sent its last byte, or is `broken` and gets none either.
    void onPeerClosed(bool broken);

    // For the intake.
    /// The next request is not there yet.
    void onIdle() noexcept { inARow_ = 0; }
    void onHead(const RequestHead& head);
    void serve(std::unique_ptr<HttpRequest> request);
    void refuse(const Refused& refused);
    void refuseHead(const Refused& refused, const RequestHead& head);
    /// Writes the answer that waited for "100 Continue"; false when there is none yet.
    bool respondDeferred();

    /// For the rest of the body of request `requestNumber`, if that is still served.
    void receiveBody(std::uint64_t requestNumber, std::uint64_t maxBytes, Promise<ReceivedBody> promise);
    /// The request at work has its body; it is about to be told.
    void onWholeBody() { served_.allowDirect(); }
    /// The late answer to request `requestNumber`, if that is still served.
    void receiveAnswer(std::uint64_t requestNumber, std::unique_ptr<HttpResponse> response, DirectAnswer::Sent sent);

    std::shared_ptr<ResponseWriter::Owner> ownerPtr() override { return self(); }
    std::weak_ptr<Loop> weakLoop() override { return loop_.weak_from_this(); }
    void responseProgress(ResponseWriter::Progress progress) override;

private:
    enum class State
    {
        receiving,
        serving,
        writing,
        over
    };

    void respond(std::unique_ptr<HttpResponse> response);
    void write(std::unique_ptr<HttpResponse> response, std::string head, std::size_t alreadySent);
    void responseWritten();
    void upgrade(const HttpResponse& response);

    Connection& connection_;
    Stream& stream_;
    Loop& loop_;
    ServerCore& core_;

    State state_ = State::receiving;
    RequestIntake intake_;
    ResponseTerms terms_;
    std::optional<UpgradeAsked> upgradeAsked_;
    ServedRequest served_;
    std::unique_ptr<HttpResponse> deferred_; ///< waits for "100 Continue" to be written, or an upgrade for a read's end
    unsigned inARow_ = 0;                    ///< responses written without leaving the stack

    ResponseWriter writer_;
};

} // namespace connector::http::engine
