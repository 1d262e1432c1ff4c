#include "connector/http/engine/FrameStream.h"

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>

namespace connector::http::engine {

namespace {

constexpr std::size_t kFramesAtOnce = 32;

} // namespace

/// RFC 6455 §5.5.1: two bytes of head, then the code.
void FrameStream::setCloseCode(std::string& frame, std::uint16_t code)
{
    constexpr char kFinalClose = static_cast<char>(0x88);
    if (frame.size() < 4 || frame[0] != kFinalClose)
        return;
    frame[2] = static_cast<char>(code >> 8);
    frame[3] = static_cast<char>(code & 0xff);
}

void FrameStream::readAhead()
{
    moreIsLikely_ = false;
    const auto scratch = loop_.scratch();
    const auto count = ::recv(stream_.socket().native_handle(), scratch.data(), scratch.size(), MSG_DONTWAIT);
    if (count > 0)
        surplus_.assign(scratch.data(), static_cast<std::size_t>(count));
}

void FrameStream::takeTurn()
{
    if (std::exchange(hasTurn_, true))
        return;
    if (auto rest = turn_.take(); !rest.empty())
        queue_.emplace_front(std::move(rest));
}

void FrameStream::enqueue(Frames frames)
{
    takeTurn();
    queue_.splice(queue_.end(), frames);
}

void FrameStream::flush()
{
    if (waiting_ || flushing_)
        return;
    const auto keep = owner_.ownerPtr();
    flushing_ = true;
    // Whoever is told that the queue is empty may fill it anew.
    do {
        send();
        if (!waiting_ && !failed_)
            owner_.flushed();
    } while (!waiting_ && !failed_ && !queue_.empty());
    flushing_ = false;
    if (!waiting_ && queue_.empty() && std::exchange(hasTurn_, false))
        turn_.giveBack();
    if (failed_)
        owner_.sendingFailed();
    if (!waiting_ && whenFlushed_)
        std::exchange(whenFlushed_, nullptr)();
}

void FrameStream::send()
{
    while (!queue_.empty() && !failed_) {
        std::array<iovec, 2 * kFramesAtOnce> parts;
        std::size_t used = 0;
        for (auto frame = queue_.begin(); frame != queue_.end() && used < parts.size(); ++frame) {
            std::string_view head = frame->head();
            std::string_view payload = frame->payload();
            if (frame == queue_.begin()) {
                payload.remove_prefix(offset_ > head.size() ? offset_ - head.size() : 0);
                head.remove_prefix(std::min(offset_, head.size()));
            }
            parts[used++] = partOf(head);
            parts[used++] = partOf(payload);
        }

        if (stream_.isTls()) {
            waiting_ = true;
            // TLS takes one buffer at a time.
            const auto& part = parts[0].iov_len > 0 ? parts[0] : parts[1];
            stream_.async_write_some(boost::asio::buffer(part.iov_base, part.iov_len),
                                     [this, keep = owner_.ownerPtr()](const Error& error, std::size_t count) {
                                         waiting_ = false;
                                         sent(count);
                                         failed_ = failed_ || error;
                                         flush();
                                     });
            return;
        }

        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = used;
        const auto count = ::sendmsg(stream_.socket().native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            sent(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            waiting_ = true;
            stream_.socket().async_wait(Stream::Socket::wait_write,
                                        [this, keep = owner_.ownerPtr()](const Error& error) {
                                            waiting_ = false;
                                            failed_ = failed_ || error;
                                            flush();
                                        });
            return;
        } else if (errno != EINTR) {
            failed_ = true;
        }
    }
}

void FrameStream::sent(std::size_t count)
{
    std::size_t messages = 0;
    std::size_t payloadBytes = 0;
    offset_ += count;
    for (; !queue_.empty() && offset_ >= queue_.front().size(); queue_.pop_front()) {
        const Frame& done = queue_.front();
        offset_ -= done.size();
        messages += done.isMessage();
        payloadBytes += done.isMessage() ? done.payload().size() : 0;
    }
    if (messages > 0)
        owner_.messagesSent(messages, payloadBytes);
}

void FrameStream::close()
{
    failed_ = true;
    turn_.revoke();
    stream_.close();
}

} // namespace connector::http::engine
