#pragma once

#include <utility>

#include "connector/Export.h"

namespace connector::common {

/// An open file or socket; closed when this dies. Move-only; -1 for none.
class CONNECTOR_API FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) noexcept : number_(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(number_, other.number_);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    int number() const noexcept { return number_; }
    /// The caller closes it.
    int release() noexcept { return std::exchange(number_, -1); }
    explicit operator bool() const noexcept { return number_ >= 0; }

private:
    int number_ = -1;
};

} // namespace connector::common
