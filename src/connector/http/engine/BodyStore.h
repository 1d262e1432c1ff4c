#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "connector/http/engine/RequestHead.h"
#include "connector/http/engine/SpoolFile.h"

namespace connector::http::engine {

/// Where one request's body is put: into memory, or into a file from its beginning once it is larger than that is meant
/// for. Counted in the sum of the bodies held. Its loop's thread.
class BodyStore
{
public:
    explicit BodyStore(std::shared_ptr<ServerCore> core) : core_(std::move(core)) {}

    /// For a new body, of `announced` bytes where that is known. What comes now stays in memory.
    void begin(std::optional<std::uint64_t> announced);
    /// Somebody wants the body: a large one goes to a file from now on. Answers as `append` does.
    std::optional<Refused> ask();
    /// Why the body cannot be kept; none while all is well.
    std::optional<Refused> append(std::string_view content);
    std::uint64_t size() const noexcept { return file_ ? file_->size() : text_.size(); }

    std::string takeText() { return std::exchange(text_, {}); }
    ReceivedBody take();
    /// Nobody wants it. What others hold of it stays.
    void drop();

    /// What counts in the sum of all bodies in memory; null for a request without a body.
    const std::shared_ptr<BodyHold>& hold() const noexcept { return hold_; }
    /// Counts nothing any more: the body is over, and may have been taken away.
    void release() { hold_.reset(); }

private:
    std::optional<Refused> put(std::string_view content);
    bool isForFile(std::size_t added) const noexcept;
    void moveToFile();
    bool keep(std::string_view content);

    const std::shared_ptr<ServerCore> core_;
    std::optional<std::uint64_t> announced_;
    bool asked_ = false;
    std::string text_;
    std::shared_ptr<SpoolFile> file_;
    std::shared_ptr<BodyHold> hold_;
};

} // namespace connector::http::engine
