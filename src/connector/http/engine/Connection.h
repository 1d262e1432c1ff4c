#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/ip/tcp.hpp>

#include "connector/http/engine/Answer.h"
#include "connector/http/engine/ChunkedBody.h"
#include "connector/http/engine/DirectAnswer.h"
#include "connector/http/engine/Loop.h"
#include "connector/http/engine/ReadBuffer.h"
#include "connector/http/engine/RequestHead.h"

namespace connector::http::engine {

/// One client's connection: reads a request, has it served, writes the answer, and starts anew; one request at a time,
/// so that pipelined requests are answered in order. All of it runs on the thread of its loop, which outlives it; only
/// the answer itself may be written by the thread that has it (DirectAnswer).
class Connection final : public std::enable_shared_from_this<Connection>
{
public:
    using Clock = std::chrono::steady_clock;

    Connection(boost::asio::ip::tcp::socket socket, Loop& loop, std::unique_ptr<ConnectionCount> count);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void start();
    /// Answers 503 without reading anything, and closes.
    void turnAway();
    /// The server stops: closes now, or after the answer to the request at work, which is 503.
    void stop();
    void close();

    bool isLate(Clock::time_point now) const noexcept;
    /// What happens to a late one.
    void giveUp();

private:
    enum class State
    {
        readingHead,
        sendingContinue,
        readingBody,
        serving,
        writing,
        lingering,
        closed
    };

    void nextRequest();
    void readHead();
    void beginBody();
    void sendContinue();
    void readBody();
    bool holdBody();
    void serve();
    std::function<bool(MessageFuture)> answerLater(const RequestTrace& trace);
    void refuse(const Refused& refused);
    void respond(std::unique_ptr<HttpResponse> response);
    void answered(std::unique_ptr<HttpResponse> response, DirectAnswer::Sent sent);
    void responseWritten();
    void linger();
    void endExchange();
    void abandonExchange();

    void watch(std::size_t limit);
    void onRead(const boost::system::error_code& error, std::size_t count);
    void onPeerClosed(bool broken);
    void writeSome();

    void setDeadline(std::chrono::milliseconds fromNow) { deadline_ = Clock::now() + fromNow; }
    void clearDeadline() noexcept { deadline_ = Clock::time_point::max(); }

    Loop& loop_;
    ServerCore& core_;
    std::unique_ptr<ConnectionCount> count_;
    boost::asio::ip::tcp::socket socket_;
    std::string peerAddress_;
    std::uint16_t localPort_ = 0;

    State state_ = State::readingHead;
    Clock::time_point deadline_ = Clock::time_point::max();
    bool closing_ = false; ///< after the current response
    bool readPending_ = false;
    bool peerClosed_ = false; ///< sent its last byte
    bool headBegun_ = false;
    std::uint64_t requestNumber_ = 0;
    ReadBuffer buffer_;

    std::optional<RequestHeadReader> reader_;
    std::unique_ptr<HttpRequest> request_;
    std::optional<ChunkedBody> chunks_;
    std::uint64_t bodyLeft_ = 0;
    std::uint64_t bodyBytes_ = 0;        ///< as received, for the rate
    std::shared_ptr<BodyHold> bodyHold_; ///< null for a request without a body
    Clock::time_point bodyBegin_;

    bool isHead_ = false;
    bool keepAliveAsked_ = false;
    bool inFlight_ = false;
    std::shared_ptr<CancellationToken> cancellation_;
    std::shared_ptr<DirectAnswer> direct_;
    Future<bool> pending_; ///< of the continuation that brings the answer

    std::unique_ptr<HttpResponse> response_;
    std::string head_;
    std::size_t written_ = 0;
    std::size_t toWrite_ = 0;
};

} // namespace connector::http::engine
