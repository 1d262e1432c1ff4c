#pragma once

#include <atomic>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/rqe/Interpreter.h"

namespace connector::interpreter::v1 {

/// Text of one stream on its way from the thread that prints to whoever comes for it: a lock for each line would cost
/// as much as the rest of printing it. Its owner's lock is held for everything but `add`.
class PrintBuffer
{
public:
    /// The printing thread. False where there is no room, and for another stream: `restart` helps. What was added is
    /// seen by a `take` that comes after anything this thread does then, with sequential consistency.
    bool add(rqe::Stream stream, std::string_view text) noexcept
    {
        const auto filled = filled_.load(std::memory_order_relaxed);
        if (stream != stream_ || text.size() > capacity_ - filled)
            return false;
        std::memcpy(bytes_.get() + filled, text.data(), text.size());
        filled_ = filled + text.size();
        return true;
    }

    rqe::Stream stream() const noexcept { return stream_; }
    /// What was added since the last time; stands until `restart`.
    std::string_view take() noexcept
    {
        const auto from = std::exchange(taken_, filled_);
        return {bytes_.get() + from, taken_ - from};
    }

    /// The printing thread, after `take`: room for text of that stream.
    void restart(rqe::Stream stream)
    {
        if (!bytes_)
            bytes_ = std::make_unique_for_overwrite<char[]>(kBytes);
        capacity_ = kBytes;
        stream_ = stream;
        filled_ = taken_ = 0;
    }
    /// The printing thread, after `take`: it prints no more.
    void end() noexcept
    {
        filled_ = taken_ = capacity_ = 0;
        bytes_.reset();
    }

private:
    static constexpr std::size_t kBytes = 8u << 10;

    std::unique_ptr<char[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t taken_ = 0;
    std::atomic<std::size_t> filled_{0};
    rqe::Stream stream_ = rqe::Stream::output;
};

} // namespace connector::interpreter::v1
