#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "connector/http/HttpMessage.h"
#include "connector/http/engine/ResponseHead.h"
#include "connector/http/engine/Stream.h"

namespace connector::http::engine {

class Loop;

/// Sends one response at a time: text from memory, files by sendfile where there is no TLS, a producer's pieces as fast
/// as the client reads. Its loop's thread.
class ResponseWriter
{
public:
    using Clock = std::chrono::steady_clock;

    enum class Progress
    {
        done,
        waiting, ///< the owner is told
        failed   ///< the connection is of no more use
    };

    class Owner
    {
    public:
        virtual ~Owner() = default;
        virtual std::shared_ptr<Owner> ownerPtr() = 0;
        virtual std::weak_ptr<Loop> weakLoop() = 0;
        virtual void responseProgress(Progress progress) = 0;
    };

    /// Both live as long as this.
    ResponseWriter(Stream& stream, Owner& owner) : stream_(stream), owner_(owner) {}

    /// `alreadySent` bytes of head and text have gone out before. Not while another response is sent.
    Progress start(std::unique_ptr<HttpResponse> response, std::string head, const ResponseTerms& terms,
                   std::size_t alreadySent = 0);

    /// The client has not taken anything for `patience`, or over a longer time less than `minRate` bytes per second.
    bool isLate(Clock::time_point now, std::chrono::milliseconds patience, std::uint64_t minRate) const noexcept;

    /// Forgets the response; nothing is told any more.
    void abandon();

private:
    Progress advance();
    Progress sendText();
    Progress sendFile();
    Progress afterFailure();
    Progress readForTls();
    Progress fetchPiece();
    bool nextPart();
    void cork(bool on);
    void tookPiece(Future<std::string>& settled);
    Progress waitForRoom();
    void resume(const boost::system::error_code& error);
    void sent(std::size_t count);
    void tellProgress(Progress progress);
    Progress finish(Progress progress);

    Stream& stream_;
    Owner& owner_;
    std::unique_ptr<HttpResponse> response_;
    ResponseTerms terms_;
    std::uint64_t number_ = 0; ///< of the response, for completions that come after it was abandoned

    std::string buffer_;                   ///< head, a piece with its frame, or bytes of a file on their way to TLS
    std::array<std::string_view, 2> text_; ///< still to be sent; before anything else
    std::size_t part_ = 0;
    const BodyPart* file_ = nullptr; ///< at work
    std::uint64_t fileOffset_ = 0;
    std::uint64_t fileLeft_ = 0;
    bool producing_ = false;
    bool corked_ = false;
    Future<bool> piece_; ///< of the continuation that brings the next piece

    bool stuck_ = false; ///< the client takes nothing at the moment
    Clock::time_point stuckSince_;
    Clock::duration stuckFor_{}; ///< in all, before
    std::uint64_t sentBytes_ = 0;
};

} // namespace connector::http::engine
