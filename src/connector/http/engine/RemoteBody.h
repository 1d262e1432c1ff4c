#pragma once

#include <memory>
#include <optional>

#include "connector/http/HttpBody.h"

namespace connector::http::engine {

class Loop;
class RequestCycle;

/// What a request knows of its body, whose connection may be gone by now.
class RemoteBody final : public PendingBody
{
public:
    RemoteBody(std::weak_ptr<RequestCycle> cycle, std::weak_ptr<Loop> loop, std::uint64_t requestNumber,
               std::optional<std::uint64_t> announced)
        : cycle_(std::move(cycle)), loop_(std::move(loop)), requestNumber_(requestNumber), announced_(announced)
    {}

    std::optional<std::uint64_t> announcedBytes() const override { return announced_; }
    Future<ReceivedBody> receive(std::uint64_t maxBytes) override;

private:
    const std::weak_ptr<RequestCycle> cycle_;
    const std::weak_ptr<Loop> loop_;
    const std::uint64_t requestNumber_;
    const std::optional<std::uint64_t> announced_;
};

} // namespace connector::http::engine
