#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "connector/http/engine/BodyReader.h"
#include "connector/http/engine/BodyStore.h"
#include "connector/http/engine/ReadBuffer.h"
#include "connector/http/engine/ServerCore.h"

namespace connector::http::engine {

/// The body of one request at a time, as it arrives: what comes along with the head, and the rest once somebody wants
/// it. One that was refused is never complete, so that nothing behind it can be taken for a request. Its loop's thread.
class IncomingBody
{
public:
    using Clock = std::chrono::steady_clock;

    enum class State
    {
        needMore,
        complete,
        refused ///< says `refused`; nothing more can be received
    };

    explicit IncomingBody(std::shared_ptr<ServerCore> core) : core_(std::move(core)), store_(core_) {}

    /// There is no request, and so no body that could be left unread.
    void forget() { reader_.reset(); }
    void begin(const RequestHead& head);
    std::optional<std::uint64_t> announced() const noexcept { return reader_->announced(); }
    bool isComplete() const noexcept { return complete_; }
    /// Something may be left of it in front of the next request.
    bool isUnread() const noexcept { return reader_ && !complete_; }
    const Refused& refused() const noexcept { return refused_; }
    /// It comes slower than is allowed, for longer than is allowed.
    bool isSlow(Clock::time_point now) const noexcept;

    /// Moves what `buffer` has of it out of there.
    State read(ReadBuffer& buffer);
    /// A body that came along with its head.
    std::string takeText() { return store_.takeText(); }
    /// What counts in the sum of all bodies; null for a request without a body.
    const std::shared_ptr<BodyHold>& hold() const noexcept { return store_.hold(); }
    /// The request is answered.
    void release() { store_.release(); }

    /// Whether the rest can still be asked for.
    bool isAwaited() const noexcept { return isUnread() && !reception_ && refused_.status == 0; }
    /// Somebody wants it, up to `maxBytes`. Only while it is awaited.
    State beginReception(Promise<ReceivedBody> promise, std::uint64_t maxBytes);
    bool isReceiving() const noexcept { return reception_.has_value(); }
    /// Ends the reception; whoever waits for it is told within the call, and may answer the request.
    void deliver();
    void fail(const Refused& refused);
    /// Nobody wants it any more, or the rest will not come.
    void drop();
    /// How long a reception of up to `maxBytes` may take in all.
    std::chrono::milliseconds receptionTime(std::uint64_t maxBytes) const;

private:
    struct Reception
    {
        Promise<ReceivedBody> promise;
        std::uint64_t maxBytes;
    };

    State refuse(const Refused& refused);
    Promise<ReceivedBody> takePromise();

    const std::shared_ptr<ServerCore> core_;
    std::optional<BodyReader> reader_;
    BodyStore store_;
    bool complete_ = false; ///< all of it was read and kept
    Refused refused_;
    std::optional<Reception> reception_;
    Clock::time_point begun_; ///< for the rate at which its client sends
    std::uint64_t bytes_ = 0; ///< since then, as received
};

} // namespace connector::http::engine
