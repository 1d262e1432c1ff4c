// The bytes of one connection: a request head and, when it announces one, a chunked body. Whatever the bytes, reading
// them in one piece and in small ones must come to the same, and what is taken must keep the reader's promises.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "connector/http/HttpText.h"
#include "connector/http/engine/ChunkedBody.h"
#include "connector/http/engine/RequestHead.h"
#include "platform/fl/i18n.h"

using namespace connector::http;
using namespace connector::http::engine;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

RequestHeadReader::State readInSteps(RequestHeadReader& reader, std::string_view bytes, std::size_t step)
{
    auto state = RequestHeadReader::State::needMore;
    for (std::size_t count = 0; count < bytes.size() && state == RequestHeadReader::State::needMore;) {
        count = std::min(bytes.size(), count + step);
        state = reader.read(bytes.substr(0, count));
    }
    return state;
}

struct Decoded
{
    ChunkedBody::State state = ChunkedBody::State::needMore;
    std::string body;
    std::size_t used = 0;
};

Decoded decodeInSteps(std::string_view bytes, std::size_t step)
{
    ChunkedBody reader(1u << 16);
    Decoded decoded;
    while (decoded.used < bytes.size() && decoded.state == ChunkedBody::State::needMore) {
        std::string_view part = bytes.substr(decoded.used, step);
        const auto given = part.size();
        decoded.state = reader.read(part, decoded.body);
        decoded.used += given - part.size();
    }
    require(decoded.body.size() <= (1u << 16));
    return decoded;
}

void checkHead(const RequestHead& head)
{
    require(isToken(head.method));
    require(head.target == "*" || (head.target.front() == '/' && head.path.front() == '/'));
    require(fl::i18n::isValidUtf8(head.path) && isFieldValue(head.path));
    require(head.path.find("/../") == std::string::npos && !head.path.ends_with("/.."));
    require(head.minorVersion == 0 || head.headers.count("Host") == 1);
    require(!head.chunked || (head.minorVersion == 1 && head.contentLength == 0));
    require(head.headers.fields().size() <= RequestLimits().fields);
    for (const auto& [name, value] : head.headers.fields())
        require(isToken(name) && isFieldValue(value) && trimmed(value) == value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    RequestHeadReader whole;
    const auto state = size > 0 ? whole.read(bytes) : RequestHeadReader::State::needMore;
    for (const std::size_t step : {std::size_t{1}, std::size_t{7}}) {
        RequestHeadReader parts;
        require(readInSteps(parts, bytes, step) == state);
        require(parts.refused().status == whole.refused().status);
        require(state != RequestHeadReader::State::complete || parts.headBytes() == whole.headBytes());
    }
    if (state != RequestHeadReader::State::complete)
        return 0;

    checkHead(whole.head());
    if (whole.head().chunked) {
        const std::string_view rest = bytes.substr(whole.headBytes());
        const Decoded once = decodeInSteps(rest, rest.size());
        const Decoded slowly = decodeInSteps(rest, 1);
        require(once.state == slowly.state && once.body == slowly.body);
        require(once.state != ChunkedBody::State::complete || once.used == slowly.used);
    }
    return 0;
}
