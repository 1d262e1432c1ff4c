#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "connector/http/engine/ChunkedBody.h"
#include "connector/http/engine/RequestHead.h"

namespace connector::http::engine {

/// Takes one request's body out of the bytes that arrive, whichever way its length is told.
class BodyReader
{
public:
    using State = ChunkedBody::State;

    BodyReader(const RequestHead& head, std::uint64_t limit) : left_(head.contentLength)
    {
        if (head.chunked)
            chunks_.emplace(limit);
        else
            announced_ = head.contentLength;
    }

    /// Takes from the front of `bytes` what belongs to the body; `content`, of what was taken, is good until the next
    /// call.
    State read(std::string_view& bytes, std::string_view& content)
    {
        if (chunks_) {
            decoded_.clear();
            const State state = chunks_->read(bytes, decoded_);
            content = decoded_;
            return state;
        }
        content = bytes.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(left_, bytes.size())));
        bytes.remove_prefix(content.size());
        left_ -= content.size();
        return left_ == 0 ? State::complete : State::needMore;
    }

    std::optional<std::uint64_t> announced() const noexcept { return announced_; }
    std::uint64_t left() const noexcept { return left_; } ///< of an announced body
    const Refused& refused() const noexcept { return chunks_->refused(); }

private:
    std::optional<std::uint64_t> announced_;
    std::uint64_t left_;
    std::optional<ChunkedBody> chunks_;
    std::string decoded_;
};

} // namespace connector::http::engine
