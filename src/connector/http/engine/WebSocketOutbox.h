#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "connector/http/WebSocket.h"
#include "connector/http/engine/Frame.h"
#include "connector/http/engine/SocketTurn.h"

namespace connector::http::engine {

/// The messages that wait to be sent on one WebSocket, filled by any thread and emptied by its loop. Bounded by bytes.
class WebSocketOutbox
{
public:
    enum class Pushed
    {
        done,     ///< it has gone out, or the loop knows
        tell,     ///< the loop is to be told
        tellLate, ///< the loop is to be told, but not before a moment has passed
        overflow, ///< nothing more is taken; the loop is to be told
        closed
    };

    WebSocketOutbox(std::size_t maxBytes, int socket) : turn_(socket), maxBytes_(maxBytes) {}

    /// Who writes to the socket; the loop's side gives it up when it has nothing to write.
    SocketTurn& turn() noexcept { return turn_; }
    /// From now on `SendWhen::now` may write to the socket: frames go out as they are, without TLS or compression.
    void allowDirect();

    /// Does not wait for others that send.
    Pushed push(Frame message, SendWhen when);
    /// The moment of `tellLate` has passed.
    void lateTold();
    /// The next messages, once nobody else is sending: all, but no more than `most`. Their bytes count until `written`.
    Frames pop(std::size_t most);
    void written(std::size_t messages, std::size_t payloadBytes);

    /// Takes no more messages.
    void close();

    /// Until three quarters of it are free, or it is closed; false when that takes longer.
    bool waitForRoom(std::chrono::milliseconds patience);
    std::size_t bytes() const noexcept { return bytes_.load(std::memory_order_relaxed); }

private:
    using Lock = std::unique_lock<std::mutex>;

    Pushed sendDirectly(Lock& lock);
    Pushed tell(SendWhen when);
    void forget(std::size_t messages, std::size_t payloadBytes);

    SocketTurn turn_;
    const std::size_t maxBytes_;
    std::mutex mutex_;
    Frames queue_;
    std::atomic<std::size_t> bytes_{0}; ///< changed with the lock held
    bool direct_ = false;
    bool sending_ = false; ///< a thread sends what is in front, without the lock, and tells the loop of what came after
    std::optional<SendWhen> meanwhile_; ///< when the most urgent of that is to go out
    bool told_ = false;                 ///< the loop knows that something waits
    bool toldLate_ = false;             ///< the loop will look by itself
    bool closed_ = false;
    unsigned waiting_ = 0; ///< for room, or for the one who sends
    std::condition_variable changed_;
};

} // namespace connector::http::engine
