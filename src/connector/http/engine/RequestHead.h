#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"

namespace connector::http::engine {

/// Limits on what one request may bring.
struct RequestLimits
{
    std::size_t headBytes = 32u << 10;
    std::size_t targetBytes = 8u << 10;
    std::size_t fields = 100;
    std::uint64_t bodyBytes = 64u << 20;
};

/// A status and a sentence for a request that is refused before anybody serves it.
struct Refused
{
    unsigned status = 0;
    std::string text;
};

/// What a request head says.
struct RequestHead
{
    std::string method;
    std::string target; ///< origin form, or "*"
    std::string path;   ///< decoded; "*" for the target "*"
    std::string query;
    std::string authority; ///< of Host and an absolute target, which must agree; "" only in HTTP/1.0
    Headers headers;
    unsigned minorVersion = 1;
    bool keepAlive = true;
    bool chunked = false;
    bool expectsContinue = false;
    std::uint64_t contentLength = 0;
};

/// Reads one request head by the letter of RFC 9112 §2 to §6: whatever two readers could understand differently is
/// refused. No copy of the bytes is kept but what stands in the head.
class CONNECTOR_API RequestHeadReader
{
public:
    enum class State
    {
        needMore,
        complete,
        refused
    };

    explicit RequestHeadReader(const RequestLimits& limits = {}) : limits_(limits) {}

    /// `bytes` is all that came since the previous request, every time anew. Not to be called again once it answered
    /// anything but needMore.
    State read(std::string_view bytes);

    /// After `complete`.
    RequestHead& head() noexcept { return head_; }
    std::size_t headBytes() const noexcept { return lineStart_; }

    /// After `refused`; the connection cannot be used for a further request.
    const Refused& refused() const noexcept { return refused_; }

private:
    bool refuse(unsigned status, std::string text);
    bool readLine(std::string_view line);
    bool readRequestLine(std::string_view line);
    bool readTarget(std::string_view target);
    bool readField(std::string_view line);
    bool finish();
    bool checkHost();
    bool checkBody();
    bool checkExpectations();

    RequestLimits limits_;
    RequestHead head_;
    Refused refused_;
    std::string targetAuthority_;
    std::size_t lineStart_ = 0;
    std::size_t scanned_ = 0;
    unsigned emptyLines_ = 0;
    bool inFields_ = false;
    bool complete_ = false;
};

} // namespace connector::http::engine
