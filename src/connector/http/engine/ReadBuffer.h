#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace connector::http::engine {

/// The bytes read from a socket and not used yet. While a read into its room is outstanding only `consume` may be
/// called.
class ReadBuffer
{
public:
    static constexpr std::size_t kIdleBytes = 4u << 10;

    std::string_view view() const noexcept { return {bytes_.get() + begin_, end_ - begin_}; }
    std::size_t size() const noexcept { return end_ - begin_; }
    void consume(std::size_t count) noexcept { begin_ += count; }

    /// Makes room behind what is there for a read, without growing beyond `limit` bytes in all; false when it is full.
    bool makeRoom(std::size_t limit)
    {
        if (begin_ == end_)
            begin_ = end_ = 0;
        if (end_ < capacity_)
            return true;
        if (size() >= limit)
            return false;
        // Growing by halves keeps what is moved small; the front is only given back when that is most of the buffer.
        const std::size_t wanted = begin_ > capacity_ / 2 ? capacity_ : std::max(kIdleBytes, capacity_ * 2);
        resize(std::max(std::min(wanted, limit), size() + 1));
        return true;
    }

    /// For a read of up to so many bytes at a time, until `shrink`.
    void growTo(std::size_t capacity)
    {
        if (capacity_ < capacity)
            resize(capacity);
    }

    /// Gives everything back.
    void clear() noexcept { *this = ReadBuffer(); }

    std::size_t capacity() const noexcept { return capacity_; }
    char* room() noexcept { return bytes_.get() + end_; }
    std::size_t roomBytes() const noexcept { return capacity_ - end_; }
    void commit(std::size_t count) noexcept { end_ += count; }

    /// Between requests: gives back what a large one took.
    void shrink()
    {
        if (capacity_ > kIdleBytes && size() <= kIdleBytes / 2)
            resize(kIdleBytes);
    }

private:
    void resize(std::size_t capacity)
    {
        auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
        const std::size_t kept = size();
        if (kept > 0)
            std::memcpy(bytes.get(), bytes_.get() + begin_, kept);
        bytes_ = std::move(bytes);
        capacity_ = capacity;
        begin_ = 0;
        end_ = kept;
    }

    std::unique_ptr<char[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

} // namespace connector::http::engine
