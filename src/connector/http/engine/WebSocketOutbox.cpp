#include "connector/http/engine/WebSocketOutbox.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace connector::http::engine {

namespace {

/// Of an entry itself, so that empty messages are bounded too.
constexpr std::size_t kOverhead = 64;
/// More than that is the loop's work: it is copied while others wait for this lock.
constexpr std::size_t kMostDirectBytes = 64u << 10;
constexpr std::size_t kMostDirectFrames = 8;

} // namespace

void WebSocketOutbox::allowDirect()
{
    std::lock_guard lock(mutex_);
    direct_ = true;
}

WebSocketOutbox::Pushed WebSocketOutbox::push(Frame message, SendWhen when)
{
    const std::size_t size = message.payload().size() + kOverhead;
    Lock lock(mutex_);
    if (closed_)
        return Pushed::closed;
    if (bytes_ + size > maxBytes_) {
        closed_ = true;
        return Pushed::overflow;
    }
    bytes_ += size;
    queue_.push_back(std::move(message));
    if (sending_) {
        if (when != SendWhen::withNext || !meanwhile_)
            meanwhile_ = when;
        return Pushed::done;
    }
    if (when == SendWhen::now && direct_ && !told_ && queue_.size() <= kMostDirectFrames && bytes_ <= kMostDirectBytes)
        return sendDirectly(lock);
    return tell(when);
}

/// Everything that waits. The lock is given back meanwhile: whoever is woken by what is sent may want it at once.
WebSocketOutbox::Pushed WebSocketOutbox::sendDirectly(Lock& lock)
{
    std::array<iovec, 2 * kMostDirectFrames> parts;
    std::size_t count = 0;
    for (const auto& frame : queue_) {
        parts[2 * count] = partOf(frame.head());
        parts[2 * count + 1] = partOf(frame.payload());
        ++count;
    }
    sending_ = true;
    lock.unlock();
    const auto sent = turn_.send({parts.data(), 2 * count});
    lock.lock();
    sending_ = false;
    if (waiting_ > 0)
        changed_.notify_all();
    const auto meanwhile = std::exchange(meanwhile_, std::nullopt);
    if (sent == SocketTurn::Sent::nothing)
        return tell(SendWhen::soon);
    for (; count > 0; --count) {
        forget(1, queue_.front().payload().size());
        queue_.pop_front();
    }
    if (sent == SocketTurn::Sent::part)
        return tell(SendWhen::soon);
    return meanwhile ? tell(*meanwhile) : Pushed::done;
}

/// With the lock held.
WebSocketOutbox::Pushed WebSocketOutbox::tell(SendWhen when)
{
    if (told_)
        return Pushed::done;
    if (when == SendWhen::withNext)
        return std::exchange(toldLate_, true) ? Pushed::done : Pushed::tellLate;
    told_ = true;
    return Pushed::tell;
}

void WebSocketOutbox::lateTold()
{
    std::lock_guard lock(mutex_);
    toldLate_ = false;
}

Frames WebSocketOutbox::pop(std::size_t most)
{
    Frames next;
    Lock lock(mutex_);
    ++waiting_;
    changed_.wait(lock, [this] { return !sending_; });
    --waiting_;
    auto end = queue_.begin();
    std::advance(end, std::min(most, queue_.size()));
    next.splice(next.end(), queue_, queue_.begin(), end);
    told_ = !queue_.empty();
    return next;
}

void WebSocketOutbox::written(std::size_t messages, std::size_t payloadBytes)
{
    Lock lock(mutex_);
    forget(messages, payloadBytes);
}

/// With the lock held.
void WebSocketOutbox::forget(std::size_t messages, std::size_t payloadBytes)
{
    bytes_ -= payloadBytes + messages * kOverhead;
    if (waiting_ > 0 && bytes_ <= maxBytes_ / 4)
        changed_.notify_all();
}

void WebSocketOutbox::close()
{
    std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

bool WebSocketOutbox::waitForRoom(std::chrono::milliseconds patience)
{
    Lock lock(mutex_);
    ++waiting_;
    const bool room = changed_.wait_for(lock, patience, [this] { return closed_ || bytes_ <= maxBytes_ / 4; });
    --waiting_;
    return room;
}

} // namespace connector::http::engine
