#include "connector/http/engine/DirectAnswer.h"

#include <array>
#include <ctime>

#include <sys/socket.h>
#include <sys/uio.h>

namespace connector::http::engine {

namespace {

bool isSimple(const HttpResponse& response) noexcept
{
    return response.status < 400 && response.parts.empty() && !response.producer && !response.upgrade;
}

} // namespace

void DirectAnswer::allow()
{
    std::lock_guard lock(mutex_);
    if (state_ == State::waiting)
        state_ = State::open;
}

DirectAnswer::Sent DirectAnswer::send(const HttpResponse& response)
{
    if (!isSimple(response))
        return {};
    const bool withBody = !terms_.withoutBody && hasBody(response.status);
    Sent sent;
    sent.head = writeHead(response, DateText().at(std::time(nullptr)), terms_);
    std::array<iovec, 2> parts{{
        {sent.head.data(), sent.head.size()},
        {const_cast<char*>(response.body.data()), withBody ? response.body.size() : 0},
    }};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();

    std::lock_guard lock(mutex_);
    if (state_ != State::open)
        return {};
    const auto count = ::sendmsg(socket_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
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
