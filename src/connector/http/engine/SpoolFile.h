#pragma once

#include <memory>
#include <string_view>

#include "connector/common/FileDescriptor.h"
#include "connector/http/engine/ServerCore.h"

namespace connector::http::engine {

/// A file without a name that takes one request's body; counted among the server's while it is open. Writing goes to
/// the page cache, on the connection's own thread.
class SpoolFile
{
public:
    /// Throws HttpFault 507 when there can be no file, with the cause in the log.
    explicit SpoolFile(std::shared_ptr<ServerCore> core);
    ~SpoolFile();
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;

    /// Throws HttpFault: 503 when all spooled bodies are too large together, 507 when the disk is full.
    void append(std::string_view bytes);

    std::uint64_t size() const noexcept { return size_; }
    const common::FileDescriptor& descriptor() const noexcept { return file_; }

private:
    const std::shared_ptr<ServerCore> core_;
    common::FileDescriptor file_;
    std::uint64_t size_ = 0;
};

} // namespace connector::http::engine
