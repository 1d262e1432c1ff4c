#pragma once

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "connector/http/WebSocket.h"
#include "connector/http/engine/SocketTurn.h"

namespace connector::http::engine {

/// The messages that wait to be sent on one WebSocket, filled by any thread and emptied by its loop. Bounded by bytes.
class WebSocketOutbox
{
public:
    struct Outgoing
    {
        std::shared_ptr<const std::string> payload;
        bool binary = false;
    };

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
    Pushed push(Outgoing message, SendWhen when);
    /// The moment of `tellLate` has passed.
    void lateTold();
    /// The next message, when nobody else is sending; its bytes count until `written`.
    std::optional<Outgoing> pop();
    void written(std::size_t payloadBytes);

    /// Takes no more messages.
    void close();

    /// Until three quarters of it are free, or it is closed; false when that takes longer.
    bool waitForRoom(std::chrono::milliseconds patience);
    std::size_t bytes() const;

private:
    using Lock = std::unique_lock<std::mutex>;

    Pushed sendDirectly(Lock& lock);
    Pushed tell(SendWhen when);
    void forget(std::size_t payloadBytes);

    SocketTurn turn_;
    const std::size_t maxBytes_;
    mutable std::mutex mutex_;
    // A list takes nothing while it is empty, as it is in most of ten thousand clients.
    std::list<Outgoing> queue_;
    std::size_t bytes_ = 0;
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
