#pragma once

#include <cstddef>
#include <mutex>
#include <string>

#include "connector/http/HttpMessage.h"

namespace connector::http::engine {

/// Lets the thread that has the answer to a request write it to the client's socket itself: to wake the connection's
/// own thread for it would cost more than most answers take. The connection does the rest: what the socket did not take
/// at once, and everything after. One request's; shared by both threads.
class DirectAnswer
{
public:
    /// What the head needs to know. `socket` stays open until `revoke`.
    struct Terms
    {
        int socket;
        bool closing;
        bool keepAliveAsked;
        bool withoutBody; ///< the request was HEAD
    };

    struct Sent
    {
        std::string head;
        std::size_t bytes = 0; ///< of head and body; 0: nothing was sent, nor will be
    };

    explicit DirectAnswer(Terms terms) : terms_(terms) {}

    /// Sends what the socket takes at once. Any thread, once.
    Sent send(const HttpResponse& response);

    /// The connection's thread: nothing is sent from now on. False when something was.
    bool revoke();

private:
    enum class State
    {
        open,
        revoked,
        sent
    };

    const Terms terms_;
    std::mutex mutex_; ///< held while sending, which does not block
    State state_ = State::open;
};

/// How many bytes of body go out with a response.
std::size_t bodyBytesToSend(const HttpResponse& response, bool withoutBody) noexcept;

} // namespace connector::http::engine
