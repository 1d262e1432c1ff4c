#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>

namespace connector::http::engine {

/// One message as a server's frame (RFC 6455 §5.2): not masked, not fragmented. The payload is shared by all who get
/// it.
class Frame
{
public:
    Frame() = default;
    Frame(std::shared_ptr<const std::string> payload, bool binary);
    /// Bytes of a frame made elsewhere.
    explicit Frame(std::string bytes) : payload_(std::make_shared<const std::string>(std::move(bytes))) {}

    std::string_view head() const noexcept { return {head_.data(), headBytes_}; }
    const std::string& payload() const noexcept { return *payload_; }
    bool isBinary() const noexcept;
    std::size_t size() const noexcept { return headBytes_ + payload_->size(); }
    bool isMessage() const noexcept { return headBytes_ > 0; }

private:
    std::array<char, 10> head_{};
    std::uint8_t headBytes_ = 0;
    std::shared_ptr<const std::string> payload_;
};

/// In the order in which they are sent. A list takes nothing while it is empty, as it is in most of ten thousand
/// clients.
using Frames = std::list<Frame>;

} // namespace connector::http::engine
