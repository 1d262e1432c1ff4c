#pragma once

#include <memory>
#include <utility>

#include "connector/core/ServiceProvider.h"

namespace connector {

/// What a typed operation answers, as the message that `deliverTo` is to answer.
template <class Response>
MessageFuture asMessage(Future<Response> response)
{
    return response.then(
        [](Future<Response> settled) -> std::unique_ptr<Message> { return std::make_unique<Response>(settled.get()); });
}

} // namespace connector
