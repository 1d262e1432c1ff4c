#pragma once

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

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
        queued,
        queuedFirst, ///< the loop is to be told
        overflow,    ///< nothing more is taken; the loop is to be told
        closed
    };

    explicit WebSocketOutbox(std::size_t maxBytes) : maxBytes_(maxBytes) {}

    Pushed push(std::shared_ptr<const std::string> payload, bool binary)
    {
        std::lock_guard lock(mutex_);
        if (closed_)
            return Pushed::closed;
        if (bytes_ + payload->size() + kOverhead > maxBytes_) {
            closed_ = true;
            return Pushed::overflow;
        }
        bytes_ += payload->size() + kOverhead;
        queue_.push_back({std::move(payload), binary});
        return queue_.size() == 1 ? Pushed::queuedFirst : Pushed::queued;
    }

    /// The next message; its bytes count until `written`.
    std::optional<Outgoing> pop()
    {
        std::lock_guard lock(mutex_);
        if (queue_.empty())
            return std::nullopt;
        Outgoing first = std::move(queue_.front());
        queue_.pop_front();
        return first;
    }
    void written(std::size_t payloadBytes)
    {
        std::lock_guard lock(mutex_);
        bytes_ -= payloadBytes + kOverhead;
        if (waiting_ > 0 && bytes_ <= maxBytes_ / 4)
            room_.notify_all();
    }

    /// Takes no more messages.
    void close()
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        room_.notify_all();
    }

    /// Until three quarters of it are free, or it is closed; false when that takes longer.
    bool waitForRoom(std::chrono::milliseconds patience)
    {
        std::unique_lock lock(mutex_);
        ++waiting_;
        const bool room = room_.wait_for(lock, patience, [this] { return closed_ || bytes_ <= maxBytes_ / 4; });
        --waiting_;
        return room;
    }

    std::size_t bytes() const
    {
        std::lock_guard lock(mutex_);
        return bytes_;
    }

private:
    /// Of an entry itself, so that empty messages are bounded too.
    static constexpr std::size_t kOverhead = 64;

    const std::size_t maxBytes_;
    mutable std::mutex mutex_;
    // A list takes nothing while it is empty, as it is in most of ten thousand clients.
    std::list<Outgoing> queue_;
    std::size_t bytes_ = 0;
    bool closed_ = false;
    unsigned waiting_ = 0;
    std::condition_variable room_;
};

} // namespace connector::http::engine
