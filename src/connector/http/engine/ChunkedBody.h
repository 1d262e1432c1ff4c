#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "connector/Export.h"
#include "connector/http/engine/RequestHead.h"

namespace connector::http::engine {

/// Decodes a chunked body (RFC 9112 §7.1). Bounded: a size line by 256 bytes, all extensions by 16 KB, all trailer
/// fields, which are read and dropped, by 8 KB.
class CONNECTOR_API ChunkedBody
{
public:
    enum class State
    {
        needMore,
        complete,
        refused
    };

    explicit ChunkedBody(std::uint64_t bodyLimit) : bodyLimit_(bodyLimit) {}

    /// Takes from the front of `bytes` what it can use, appending content to `body`, which the caller may empty between
    /// two calls; what follows the body stays in `bytes`. Not to be called again once it answered anything but
    /// needMore.
    State read(std::string_view& bytes, std::string& body);

    const Refused& refused() const noexcept { return refused_; }

private:
    enum class Part
    {
        size,
        data,
        dataEnd,
        trailer
    };

    State refuse(unsigned status, std::string text);
    bool takeLine(std::string_view& bytes);
    State readSize();
    State readTrailer();

    std::uint64_t bodyLimit_;
    Part part_ = Part::size;
    std::uint64_t left_ = 0;  ///< of the current chunk
    std::uint64_t taken_ = 0; ///< of content
    std::size_t extensionBytes_ = 0;
    std::size_t trailerBytes_ = 0;
    std::string line_;
    Refused refused_;
};

} // namespace connector::http::engine
