#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "connector/http/engine/RequestHead.h"
#include "connector/http/engine/SpoolFile.h"

namespace connector::http::engine {

/// A large body on its way to a file, and who waits for it. Whoever waits is told once, from within the call that ends
/// it, so that the owner lets go of this first. Its loop's thread.
class Upload
{
public:
    Upload(std::shared_ptr<ServerCore> core, Promise<SpooledBody> promise, std::uint64_t maxBytes)
        : core_(std::move(core)), promise_(std::move(promise)), maxBytes_(maxBytes)
    {}

    /// Why the body cannot be taken; none while all is well. The file is made with the first call.
    std::optional<Refused> append(std::string_view content);

    void finish()
    {
        promise_.setValue({std::shared_ptr<const common::FileDescriptor>(file_, &file_->descriptor()), file_->size()});
    }
    void fail(const Refused& refused) { promise_.setException(HttpFault(refused.status, refused.text)); }
    /// Nobody waits any more, or the rest will not come.
    void drop() { promise_.setException(FutureCancelled()); }

private:
    std::shared_ptr<ServerCore> core_;
    Promise<SpooledBody> promise_;
    std::shared_ptr<SpoolFile> file_;
    std::uint64_t maxBytes_;
};

} // namespace connector::http::engine
