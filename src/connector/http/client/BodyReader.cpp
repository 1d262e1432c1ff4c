#include "connector/http/client/BodyReader.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <stdexcept>

#include "connector/http/HttpText.h"
#include "connector/http/engine/ChunkedBody.h"

namespace connector::http::client {

namespace {

constexpr std::size_t kBufferBytes = 64u << 10;

std::optional<std::uint64_t> number(std::string_view text)
{
    std::uint64_t value = 0;
    const auto end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    if (parsed.ec != std::errc() || parsed.ptr != end)
        return std::nullopt;
    return value;
}

} // namespace

BodyReader::BodyReader(Connection& connection, BodySink& sink, std::uint64_t maxBytes, std::string url)
    : connection_(connection), sink_(sink), maxBytes_(maxBytes), url_(std::move(url)), buffer_(kBufferBytes, '\0')
{}

void BodyReader::read(const Poco::Net::HTTPResponse& head)
{
    std::optional<std::uint64_t> length;
    bool chunked = false;
    for (const auto& [name, value] : head) {
        if (equalsIgnoringCase(name, "Transfer-Encoding")) {
            if (chunked || !equalsIgnoringCase(trimmed(value), "chunked"))
                fail("Transfer-Encoding \"" + printable(value) + "\"");
            chunked = true;
        } else if (equalsIgnoringCase(name, "Content-Length")) {
            const auto announced = number(trimmed(value));
            if (!announced || (length && *length != *announced))
                fail("Content-Length \"" + printable(value) + "\"");
            length = announced;
        }
    }
    if (chunked)
        readChunks();
    else if (length)
        readLength(*length);
    else
        readToEnd();
}

void BodyReader::readChunks()
{
    using State = engine::ChunkedBody::State;
    // The limit is looked at where all bodies pass.
    engine::ChunkedBody decoder(std::numeric_limits<std::uint64_t>::max());
    std::string content;
    for (State state = State::needMore; state != State::complete;) {
        std::string_view bytes = next(kBufferBytes);
        if (bytes.empty())
            fail("it ends within the body");
        content.clear();
        state = decoder.read(bytes, content);
        if (state == State::refused)
            fail(decoder.refused().text);
        take(content);
    }
}

void BodyReader::readLength(std::uint64_t length)
{
    if (length > maxBytes_)
        refuseTooLong();
    while (taken_ < length) {
        const std::string_view bytes = next(length - taken_);
        if (bytes.empty())
            fail("it ends after " + std::to_string(taken_) + " of " + std::to_string(length) + " bytes");
        take(bytes);
    }
}

void BodyReader::readToEnd()
{
    for (auto bytes = next(kBufferBytes); !bytes.empty(); bytes = next(kBufferBytes))
        take(bytes);
}

std::string_view BodyReader::next(std::uint64_t most)
{
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(most, buffer_.size()));
    return {buffer_.data(), connection_.read(buffer_.data(), wanted)};
}

void BodyReader::take(std::string_view bytes)
{
    if (bytes.size() > maxBytes_ - taken_)
        refuseTooLong();
    taken_ += bytes.size();
    sink_.write(bytes);
}

void BodyReader::refuseTooLong() const
{
    throw std::runtime_error("The answer of " + url_ + " is longer than " + std::to_string(maxBytes_) + " bytes.");
}

void BodyReader::fail(const std::string& why) const
{
    throw std::runtime_error("The answer of " + url_ + " cannot be read: " + why);
}

} // namespace connector::http::client
