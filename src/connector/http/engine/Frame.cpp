#include "connector/http/engine/Frame.h"

namespace connector::http::engine {

namespace {

constexpr unsigned char kFinal = 0x80;
constexpr unsigned char kText = 1;
constexpr unsigned char kBinary = 2;

} // namespace

Frame::Frame(std::shared_ptr<const std::string> payload, bool binary) : payload_(std::move(payload))
{
    const std::uint64_t size = payload_->size();
    const auto put = [this](std::uint64_t value) { head_[headBytes_++] = static_cast<char>(value & 0xff); };
    put(kFinal | (binary ? kBinary : kText));
    if (size < 126) {
        put(size);
    } else {
        const int bytes = size <= 0xffff ? 2 : 8;
        put(bytes == 2 ? 126 : 127);
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
            put(size >> shift);
    }
}

bool Frame::isBinary() const noexcept
{
    return headBytes_ > 0 && static_cast<unsigned char>(head_[0]) == (kFinal | kBinary);
}

} // namespace connector::http::engine
