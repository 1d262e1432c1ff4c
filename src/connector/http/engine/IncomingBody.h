#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "connector/http/engine/BodyReader.h"
#include "connector/http/engine/ReadBuffer.h"
#include "connector/http/engine/ServerCore.h"
#include "connector/http/engine/Upload.h"

namespace connector::http::engine {

/// The body of one request at a time, as it arrives: kept in memory or, when it is large, uploaded to a file once
/// somebody wants it. It counts in the sum of the bodies held and in the rate at which its client sends. Bytes as
/// received, with the frames of chunks. Its loop's thread.
class IncomingBody
{
public:
    using Clock = std::chrono::steady_clock;

    enum class State
    {
        needMore,
        complete,
        large,  ///< more than is kept in memory
        refused ///< says `refused`
    };

    explicit IncomingBody(std::shared_ptr<ServerCore> core) : core_(std::move(core)) {}

    /// There is no request, and so no body that could be left unread.
    void forget() { reader_.reset(); }
    void begin(const RequestHead& head);
    Clock::time_point begun() const noexcept { return begun_; }
    std::optional<std::uint64_t> announced() const noexcept { return reader_->announced(); }
    bool isAnnouncedLarge() const noexcept { return announced().value_or(0) > core_->settings.memoryBodyBytes; }
    bool isComplete() const noexcept { return complete_; }
    /// Something may be left of it in front of the next request.
    bool isUnread() const noexcept { return reader_ && !complete_; }
    const Refused& refused() const noexcept { return refused_; }
    /// It has come slower than is allowed, for longer than is allowed.
    bool isSlow(Clock::time_point now) const noexcept;

    /// Moves what `buffer` has of it to the end of `text`.
    State read(ReadBuffer& buffer, std::string& text);
    /// What counts in the sum of all bodies; null for a request without a body in memory.
    const std::shared_ptr<BodyHold>& hold() const noexcept { return hold_; }
    /// The request's body was taken away, or is not needed any more.
    void release() { hold_.reset(); }

    /// Keeps the beginning of a body that turned out to be a large one.
    void setAside(std::string text) { beginning_ = std::move(text); }
    void dropBeginning() { beginning_ = {}; }

    /// Not while another upload is at work. Any state but `large`.
    State beginUpload(Promise<SpooledBody> promise, std::uint64_t maxBytes);
    bool isUploading() const noexcept { return upload_.has_value(); }
    /// Moves what `buffer` has of it to the file. Any state but `large`.
    State readUpload(ReadBuffer& buffer);
    /// The upload ends with this; whoever waits for it is told by the caller.
    Upload takeUpload();
    void dropUpload();
    /// How long an upload of up to `maxBytes` may take in all.
    std::chrono::milliseconds uploadTime(std::uint64_t maxBytes) const;

private:
    struct Portion
    {
        std::string_view content;
        std::size_t used = 0; ///< bytes of the buffer
        BodyReader::State state{};
    };

    Portion nextPortion(const ReadBuffer& buffer);
    bool keep(std::string_view content, std::string& text);
    State refuse(const Refused& refused);

    const std::shared_ptr<ServerCore> core_;
    std::optional<BodyReader> reader_;
    bool complete_ = false;
    Refused refused_;
    Clock::time_point begun_;
    std::uint64_t bytes_ = 0; ///< as received, for the rate
    std::shared_ptr<BodyHold> hold_;
    std::string beginning_; ///< what arrived of a chunked body before it became a large one
    std::optional<Upload> upload_;
};

} // namespace connector::http::engine
