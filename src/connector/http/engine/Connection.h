#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "connector/http/engine/Loop.h"
#include "connector/http/engine/Peer.h"
#include "connector/http/engine/ReadBuffer.h"
#include "connector/http/engine/RequestCycle.h"
#include "connector/http/engine/SocketEnds.h"
#include "connector/http/engine/Strangers.h"
#include "connector/http/engine/Stream.h"
#include "connector/http/engine/UpgradeAsked.h"

namespace connector::http::engine {

/// One client's connection: its socket from TLS's handshake until both sides have closed, one read at a time, and the
/// time limit of the moment. What the client asks is for its request cycle. All of it runs on the thread of its loop,
/// which outlives it.
class Connection final : public Peer
{
public:
    Connection(Stream stream, Loop& loop, std::unique_ptr<ConnectionCount> count);
    ~Connection() override;

    /// One that is not welcome gets 503 without being read.
    void start(bool welcome);

    /// Closes now, or after the answer to the request at work, which is 503.
    void stop() override;
    void close() override;
    bool isLate(Clock::time_point now) const noexcept override;
    void giveUp() override;

    /// Closing it would cost somebody the answer that is being made.
    bool isServed() const noexcept { return state_ == State::open && requests_.isServing(); }

    // For the request cycle.
    const SocketEnds& ends() const noexcept { return ends_; }
    const std::shared_ptr<Admission>& admission() const noexcept { return admission_; }
    /// Nobody has let its client in so far.
    bool isStranger();
    /// Keeps one read outstanding, unless `limit` bytes wait already.
    void watch(std::size_t limit);
    bool isReading() const noexcept { return reading_; }
    void cancelRead();
    /// What is at work then is given up.
    void setDeadline(Clock::time_point when) noexcept { deadline_ = when; }
    void allow(std::chrono::milliseconds time) noexcept { deadline_ = Clock::now() + time; }
    void clearDeadline() noexcept { deadline_ = Clock::time_point::max(); }
    /// Closes our side and waits for the client to close its own: a socket closed with unread bytes would tear down the
    /// answer on its way.
    void linger();
    /// Hands socket and place in the count to a WebSocket; this connection is over then. Not while it reads.
    void becomeWebSocket(const UpgradeAsked& asked, const HttpResponse& response);

private:
    enum class State
    {
        handshaking,
        open,
        lingering,
        closed
    };

    std::shared_ptr<Connection> self() { return std::static_pointer_cast<Connection>(shared_from_this()); }
    void shakeHands();
    void onRead(const boost::system::error_code& error, std::size_t count);
    void drain();

    Loop& loop_;
    std::unique_ptr<ConnectionCount> count_;
    Stream stream_;
    const SocketEnds ends_;
    const std::shared_ptr<Admission> admission_ = std::make_shared<Admission>();
    std::optional<Strangers::Place> stranger_;

    State state_ = State::open;
    Clock::time_point deadline_ = Clock::time_point::max();
    bool reading_ = false;
    bool peerClosed_ = false; ///< sent its last byte
    ReadBuffer buffer_;
    bool draining_ = false;
    std::uint64_t drainedBytes_ = 0;

    RequestCycle requests_;
};

} // namespace connector::http::engine
