#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "connector/Export.h"
#include "connector/common/FileDescriptor.h"

namespace connector::interpreter::v1 {

/// Texts numbered from 1, the oldest of which may be dropped. What is more than kMemoryBytes, and kRestBytes once it
/// rests, lies in a file without a name, gone with this. One thread at a time.
class CONNECTOR_API EventLog
{
public:
    static constexpr std::size_t kMemoryBytes = 4u << 20;
    static constexpr std::size_t kRestBytes = 256u << 10;
    static constexpr std::size_t kOverhead = 64; ///< counted for each text besides its own bytes

    std::uint64_t next() const noexcept { return first_ + entries_.size(); }
    std::uint64_t first() const noexcept { return first_; }
    bool empty() const noexcept { return entries_.empty(); }
    std::uint64_t bytes() const noexcept { return bytes_; }

    void append(std::string text);
    /// `number`: from first() to next() - 1. Throws std::runtime_error when the file cannot be read.
    std::string read(std::uint64_t number) const;
    void dropFirst();
    /// Nothing more will be appended soon.
    void settle() { keepInMemory(kRestBytes); }

private:
    struct Entry
    {
        std::string text; ///< empty when it lies in the file
        std::uint64_t offset = 0;
        std::uint32_t length = 0;
    };

    void keepInMemory(std::size_t bytes);
    void spill();
    bool openFile();

    std::deque<Entry> entries_;
    std::uint64_t first_ = 1;
    std::uint64_t bytes_ = 0;
    std::size_t memoryBytes_ = 0;
    std::size_t inFile_ = 0; ///< how many of the entries
    std::uint64_t fileEnd_ = 0;
    std::uint64_t punched_ = 0; ///< the file's disk space before it was given back
    bool noFile_ = false;       ///< it cannot be written: all stays in memory
    common::FileDescriptor file_;
};

} // namespace connector::interpreter::v1
