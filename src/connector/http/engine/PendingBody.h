#pragma once

#include <memory>
#include <optional>

#include "connector/http/HttpBody.h"

namespace connector::http::engine {

class Connection;
class Loop;

/// The large body of one request, on a connection that may be gone by now.
class PendingBody final : public LargeBody
{
public:
    PendingBody(std::weak_ptr<Connection> connection, std::weak_ptr<Loop> loop, std::uint64_t requestNumber,
                std::optional<std::uint64_t> announced)
        : connection_(std::move(connection)), loop_(std::move(loop)), requestNumber_(requestNumber),
          announced_(announced)
    {}

    std::optional<std::uint64_t> announcedBytes() const override { return announced_; }
    Future<SpooledBody> receive(std::uint64_t maxBytes) override;

private:
    const std::weak_ptr<Connection> connection_;
    const std::weak_ptr<Loop> loop_;
    const std::uint64_t requestNumber_;
    const std::optional<std::uint64_t> announced_;
};

} // namespace connector::http::engine
