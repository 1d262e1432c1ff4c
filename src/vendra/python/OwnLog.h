#pragma once

#include <streambuf>

#include "vendra/python/Descriptors.h"

namespace vendra::python {

/// While it stands, std::clog, where the connector logs from any thread, leads to the host's own standard error, also
/// while descriptor 2 is an evaluation's.
class OwnLog final : public std::streambuf
{
public:
    /// `descriptors` must outlive this.
    explicit OwnLog(const Descriptors& descriptors);
    ~OwnLog() override;
    OwnLog(const OwnLog&) = delete;
    OwnLog& operator=(const OwnLog&) = delete;

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int_type overflow(int_type character) override;

private:
    const Descriptors& descriptors_;
    std::streambuf* const former_;
};

} // namespace vendra::python
