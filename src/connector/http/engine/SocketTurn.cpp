#include "connector/http/engine/SocketTurn.h"

#include <algorithm>
#include <utility>

#include <sys/socket.h>

namespace connector::http::engine {

SocketTurn::Sent SocketTurn::send(std::span<const iovec> parts)
{
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts.data());
    message.msg_iovlen = parts.size();

    std::lock_guard lock(mutex_);
    if (holder_ != Holder::nobody)
        return Sent::nothing;
    const auto count = ::sendmsg(socket_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count <= 0)
        return Sent::nothing; // the loop tries again, or finds out why not
    auto gone = static_cast<std::size_t>(count);
    for (const auto& part : parts) {
        const auto skipped = std::min(gone, part.iov_len);
        gone -= skipped;
        rest_.append(static_cast<const char*>(part.iov_base) + skipped, part.iov_len - skipped);
    }
    if (rest_.empty())
        return Sent::all;
    holder_ = Holder::loop;
    return Sent::part;
}

std::string SocketTurn::take()
{
    std::lock_guard lock(mutex_);
    if (holder_ == Holder::nobody)
        holder_ = Holder::loop;
    return std::exchange(rest_, {});
}

void SocketTurn::giveBack()
{
    std::lock_guard lock(mutex_);
    if (holder_ == Holder::loop)
        holder_ = Holder::nobody;
}

void SocketTurn::revoke()
{
    std::lock_guard lock(mutex_);
    holder_ = Holder::forever;
}

} // namespace connector::http::engine
