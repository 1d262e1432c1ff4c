#include "connector/http/engine/DirectAnswer.h"

#include <array>
#include <ctime>

#include <sys/socket.h>
#include <sys/uio.h>

#include "connector/http/engine/ResponseHead.h"

namespace connector::http::engine {

std::size_t bodyBytesToSend(const HttpResponse& response, bool withoutBody) noexcept
{
    return withoutBody || !hasBody(response.status) ? 0 : response.body.size();
}

DirectAnswer::Sent DirectAnswer::send(const HttpResponse& response)
{
    Sent sent;
    sent.head = writeHead(response, DateText().at(std::time(nullptr)), terms_.closing, terms_.keepAliveAsked);
    std::array<iovec, 2> parts{{
        {sent.head.data(), sent.head.size()},
        {const_cast<char*>(response.body.data()), bodyBytesToSend(response, terms_.withoutBody)},
    }};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();

    std::lock_guard lock(mutex_);
    if (state_ != State::open)
        return {};
    const auto count = ::sendmsg(terms_.socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count <= 0)
        return {}; // the connection tries again, or finds out why not
    state_ = State::sent;
    sent.bytes = static_cast<std::size_t>(count);
    return sent;
}

bool DirectAnswer::revoke()
{
    std::lock_guard lock(mutex_);
    if (state_ == State::sent)
        return false;
    state_ = State::revoked;
    return true;
}

} // namespace connector::http::engine
