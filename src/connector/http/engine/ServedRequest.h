#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "connector/http/engine/Answer.h"
#include "connector/http/engine/DirectAnswer.h"
#include "connector/http/engine/Loop.h"
#include "connector/http/engine/Stream.h"

namespace connector::http::engine {

class RequestCycle;

/// A request in the handler's hands, from the call until its answer is there or nobody waits for it any more; one at a
/// time. Its loop's thread; a late answer may come on any, and is brought to that thread.
class ServedRequest
{
public:
    /// All live as long as this. `asker` gets what comes late.
    ServedRequest(RequestCycle& asker, Stream& stream, Loop& loop);

    /// The answer, or the one for its failure, when it is there at once. Otherwise null: it comes to
    /// RequestCycle::receiveAnswer, under `number`, after `hold` was released and as much of it was sent as the socket
    /// took, in these `terms`.
    std::unique_ptr<HttpResponse> begin(std::unique_ptr<HttpRequest> request, std::uint64_t number,
                                        const ResponseTerms& terms, const std::shared_ptr<BodyHold>& hold);

    bool isInFlight() const noexcept { return inFlight_; }
    /// The answer is there: nobody is left to be told that the client goes.
    void end();
    /// Nobody waits any more. Does nothing when there is an answer.
    void abandon();
    /// The whole body is there: another thread may send the answer from now on.
    void allowDirect()
    {
        if (direct_)
            direct_->allow();
    }
    /// Nothing is sent by another thread from now on. False when something was.
    bool revokeDirect() { return !direct_ || direct_->revoke(); }
    /// Tells the handler that the client may be gone; its answer still counts.
    void tellClientGoes();

private:
    std::function<bool(MessageFuture)> bringLater(const RequestTrace& trace, std::uint64_t number,
                                                  const std::shared_ptr<BodyHold>& hold);

    RequestCycle& asker_;
    Stream& stream_;
    Loop& loop_;
    ServerCore& core_;

    bool inFlight_ = false;
    std::shared_ptr<CancellationToken> cancellation_;
    std::shared_ptr<DirectAnswer> direct_;
    Future<bool> pending_; ///< of the continuation that brings the answer
};

} // namespace connector::http::engine
