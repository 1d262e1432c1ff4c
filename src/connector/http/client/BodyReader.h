#pragma once

#include <cstdint>

#include <Poco/Net/HTTPResponse.h>

#include "connector/http/client/BodySink.h"
#include "connector/http/client/Connection.h"

namespace connector::http::client {

/// Reads a body to its end and no further: by chunks, by length, or until the connection ends. Throws
/// std::runtime_error when it ends early, is framed in a way that can be read in two ways, or is longer than
/// `maxBytes`.
class BodyReader
{
public:
    /// `url` is for error texts.
    BodyReader(Connection& connection, BodySink& sink, std::uint64_t maxBytes, std::string url);

    void read(const Poco::Net::HTTPResponse& head);

private:
    void readChunks();
    void readLength(std::uint64_t length);
    void readToEnd();
    std::string_view next(std::uint64_t most);
    void take(std::string_view bytes);
    void refuseTooLong() const;
    [[noreturn]] void fail(const std::string& why) const;

    Connection& connection_;
    BodySink& sink_;
    const std::uint64_t maxBytes_;
    const std::string url_;
    std::uint64_t taken_ = 0;
    std::string buffer_;
};

} // namespace connector::http::client
