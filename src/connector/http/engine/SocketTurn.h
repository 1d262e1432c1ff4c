#pragma once

#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include <sys/uio.h>

namespace connector::http::engine {

/// For sending; nothing writes through it.
inline iovec partOf(std::string_view bytes) noexcept { return {const_cast<char*>(bytes.data()), bytes.size()}; }

/// Whose turn it is to write to a connection's socket. It is its loop's while the loop has anything to send; else any
/// thread may send what it has itself: to wake the loop for it would cost more than most answers take.
class SocketTurn
{
public:
    enum class Sent
    {
        nothing, ///< it is the loop's turn, or the socket takes nothing
        part,    ///< the rest waits for the loop, which is to be told
        all
    };

    /// `socket` stays open until `revoke`, and is not one that speaks TLS.
    explicit SocketTurn(int socket) noexcept : socket_(socket) {}

    /// What the socket takes at once. Any thread.
    Sent send(std::span<const iovec> parts);

    /// The loop's turn from now on. Answers the rest of what another thread sent, to go out first.
    std::string take();
    void giveBack();
    /// For good: the socket is about to be closed.
    void revoke();

private:
    enum class Holder
    {
        nobody,
        loop,
        forever
    };

    const int socket_;
    std::mutex mutex_; ///< held while sending, which does not block
    Holder holder_ = Holder::nobody;
    std::string rest_;
};

} // namespace connector::http::engine
