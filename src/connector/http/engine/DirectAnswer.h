#pragma once

#include <cstddef>
#include <mutex>
#include <string>

#include "connector/http/HttpMessage.h"
#include "connector/http/engine/ResponseHead.h"

namespace connector::http::engine {

/// Lets the thread that has the answer to a request write it to the client's socket itself: to wake the connection's
/// own thread for it would cost more than most answers take. The connection does the rest: what the socket did not take
/// at once, and everything after. One request's; shared by both threads.
class DirectAnswer
{
public:
    struct Sent
    {
        std::string head;
        std::size_t bytes = 0; ///< of head and body; 0: nothing was sent, nor will be
    };

    /// `socket` stays open until `revoke`, and is not one that speaks TLS.
    DirectAnswer(int socket, const ResponseTerms& terms) : socket_(socket), terms_(terms) {}

    /// Nothing is sent before this. The connection's thread.
    void allow();

    /// Sends what the socket takes at once; nothing of a body that is not all text, and no refusal, which may be the
    /// connection's last answer. Any thread, once.
    Sent send(const HttpResponse& response);

    /// The connection's thread: nothing is sent from now on. False when something was.
    bool revoke();

private:
    enum class State
    {
        waiting,
        open,
        revoked,
        sent
    };

    const int socket_;
    const ResponseTerms terms_;
    std::mutex mutex_; ///< held while sending, which does not block
    State state_ = State::waiting;
};

} // namespace connector::http::engine
