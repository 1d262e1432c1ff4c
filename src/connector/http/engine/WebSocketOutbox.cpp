#include "connector/http/engine/WebSocketOutbox.h"

#include <array>
#include <utility>

#include "connector/http/engine/Frame.h"

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

WebSocketOutbox::Pushed WebSocketOutbox::push(Outgoing message, SendWhen when)
{
    const std::size_t size = message.payload->size() + kOverhead;
    std::lock_guard lock(mutex_);
    if (closed_)
        return Pushed::closed;
    if (bytes_ + size > maxBytes_) {
        closed_ = true;
        return Pushed::overflow;
    }
    auto pushed = Pushed::done;
    if (when == SendWhen::now && sendDirectly(message, pushed))
        return pushed;
    bytes_ += size;
    queue_.push_back(std::move(message));
    if (told_)
        return Pushed::done;
    if (when == SendWhen::withNext)
        return std::exchange(toldLate_, true) ? Pushed::done : Pushed::tellLate;
    told_ = true;
    return Pushed::tell;
}

/// Together with what waits for company. With the lock held, so that nothing overtakes.
bool WebSocketOutbox::sendDirectly(const Outgoing& message, Pushed& pushed)
{
    if (!direct_ || told_ || queue_.size() >= kMostDirectFrames || bytes_ + message.payload->size() > kMostDirectBytes)
        return false;
    std::array<Frame, kMostDirectFrames> frames;
    std::array<iovec, 2 * kMostDirectFrames> parts;
    std::size_t used = 0;
    const auto add = [&](const Outgoing& one) {
        auto& frame = frames[used / 2] = Frame(one.payload, one.binary);
        parts[used++] = partOf(frame.head());
        parts[used++] = partOf(frame.payload());
    };
    for (const auto& waiting : queue_)
        add(waiting);
    add(message);
    const auto sent = turn_.send({parts.data(), used});
    if (sent == SocketTurn::Sent::nothing)
        return false;
    for (const auto& waiting : queue_)
        forget(waiting.payload->size());
    queue_.clear();
    told_ = sent == SocketTurn::Sent::part;
    pushed = told_ ? Pushed::tell : Pushed::done;
    return true;
}

void WebSocketOutbox::lateTold()
{
    std::lock_guard lock(mutex_);
    toldLate_ = false;
}

std::optional<WebSocketOutbox::Outgoing> WebSocketOutbox::pop()
{
    std::lock_guard lock(mutex_);
    if (queue_.empty()) {
        told_ = false;
        return std::nullopt;
    }
    Outgoing first = std::move(queue_.front());
    queue_.pop_front();
    return first;
}

void WebSocketOutbox::written(std::size_t payloadBytes)
{
    std::lock_guard lock(mutex_);
    forget(payloadBytes);
}

/// With the lock held.
void WebSocketOutbox::forget(std::size_t payloadBytes)
{
    bytes_ -= payloadBytes + kOverhead;
    if (waiting_ > 0 && bytes_ <= maxBytes_ / 4)
        room_.notify_all();
}

void WebSocketOutbox::close()
{
    std::lock_guard lock(mutex_);
    closed_ = true;
    room_.notify_all();
}

bool WebSocketOutbox::waitForRoom(std::chrono::milliseconds patience)
{
    std::unique_lock lock(mutex_);
    ++waiting_;
    const bool room = room_.wait_for(lock, patience, [this] { return closed_ || bytes_ <= maxBytes_ / 4; });
    --waiting_;
    return room;
}

std::size_t WebSocketOutbox::bytes() const
{
    std::lock_guard lock(mutex_);
    return bytes_;
}

} // namespace connector::http::engine
