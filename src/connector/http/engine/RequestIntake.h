#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "connector/http/engine/IncomingBody.h"
#include "connector/http/engine/Loop.h"
#include "connector/http/engine/ReadBuffer.h"
#include "connector/http/engine/RequestHead.h"
#include "connector/http/engine/Stream.h"

namespace connector::http::engine {

class Connection;
class RequestCycle;

/// Takes one request after the other out of the bytes that arrive: the head with what came along of the body, and, once
/// a service wants it, the rest of the body, with "100 Continue" where that is asked for. Part of a request cycle,
/// which gets the request or why it is refused; on its loop's thread.
class RequestIntake
{
public:
    using Clock = std::chrono::steady_clock;

    enum class State
    {
        readingHead,
        ended ///< the request is the cycle's; the rest of its body may still be received
    };

    /// Pipelined bytes that are kept while a request is served; a client that sends more waits.
    static constexpr std::size_t kPipelineBytes = 16u << 10;

    /// All live as long as this.
    RequestIntake(RequestCycle& cycle, Connection& connection, Stream& stream, ReadBuffer& buffer, Loop& loop);

    /// For the first request, or the next.
    void begin();
    /// There is more in the buffer.
    void onInput();
    /// The answer is being written, without what is still to come.
    void end();
    /// The connection is closed; who waits for a body is not told by this.
    void cutOff();

    std::uint64_t requestNumber() const noexcept { return requestNumber_; }
    IncomingBody& body() noexcept { return body_; }
    const IncomingBody& body() const noexcept { return body_; }
    bool needsInput() const noexcept { return state_ == State::readingHead || body_.isReceiving(); }
    bool isLate(Clock::time_point now) const noexcept { return body_.isReceiving() && body_.isSlow(now); }
    /// Refuses what takes too long; false when nothing is awaited that could be refused.
    bool giveUp();

    /// For the rest of the body of the request that is served.
    void receiveBody(std::uint64_t maxBytes, Promise<ReceivedBody> promise);
    /// "100 Continue" is being written while the request is served.
    bool isContinuePending() const noexcept { return continuePending_; }

private:
    void readHead();
    void beginBody();
    void sendContinue();
    void readBody();
    void endBody();
    void failBody(const Refused& refused);

    RequestCycle& cycle_;
    Connection& connection_;
    Stream& stream_;
    ReadBuffer& buffer_;
    Loop& loop_;
    ServerCore& core_;

    State state_ = State::ended;
    std::uint64_t requestNumber_ = 0;
    bool headBegun_ = false;
    std::optional<RequestHeadReader> reader_;
    IncomingBody body_;
    bool continueAsked_ = false;
    bool continuePending_ = false;
};

} // namespace connector::http::engine
