#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "connector/Export.h"
#include "connector/common/FileDescriptor.h"
#include "connector/core/Future.h"

namespace connector::http {

/// A failure with an HTTP status of its own. The engine answers a request that fails with it by a short refusal of this
/// status and text, so that the text is written for the client.
class CONNECTOR_API HttpFault : public std::runtime_error
{
public:
    HttpFault(unsigned status, const std::string& text);
    ~HttpFault() override;
    unsigned status() const noexcept { return status_; }

private:
    unsigned status_;
};

/// A piece of an answer's body: text, or bytes of an open file. The file must not shrink while it is sent: a client
/// then sees its connection end.
struct BodyPart
{
    explicit BodyPart(std::string content) : text(std::move(content)) {}
    BodyPart(std::shared_ptr<const common::FileDescriptor> source, std::uint64_t begin, std::uint64_t count)
        : file(std::move(source)), offset(begin), length(count)
    {}

    std::string text; ///< unless there is a file
    std::shared_ptr<const common::FileDescriptor> file;
    std::uint64_t offset = 0;
    std::uint64_t length = 0; ///< of the file's bytes

    std::uint64_t size() const noexcept { return file ? length : text.size(); }
};

/// Makes a body piece by piece, as fast as the client reads.
class CONNECTOR_API BodyProducer
{
public:
    virtual ~BodyProducer() = default;
    /// The next piece; an empty one ends the body, a failure resets the connection, so that the client can tell. Called
    /// on the connection's I/O thread, when the piece before has been written, and not any more after the client left:
    /// the producer is destroyed then, while a piece may still be asked for.
    virtual Future<std::string> next() = 0;
};

/// A request's body that came after its head: `text` or, when it is larger than http.memoryBodyBytes, a file without a
/// name, from its beginning.
struct ReceivedBody
{
    std::string text;
    std::shared_ptr<const common::FileDescriptor> file; ///< null for text
    std::uint64_t size = 0;
};

/// A body that is still on its way: nothing is read of it before somebody asks, so that who is refused costs nothing.
/// An answer that comes without asking is the connection's last.
class CONNECTOR_API PendingBody
{
public:
    virtual ~PendingBody() = default;
    /// What Content-Length said; none for a chunked body.
    virtual std::optional<std::uint64_t> announcedBytes() const = 0;
    /// Reads the body. Any thread, once; the answer comes on the connection's I/O thread. Fails with HttpFault (413
    /// beyond `maxBytes` or the server's own limit, 400, 408, 503, 507) or FutureCancelled.
    virtual Future<ReceivedBody> receive(std::uint64_t maxBytes) = 0;
};

} // namespace connector::http
