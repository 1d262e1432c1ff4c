#pragma once

#include <memory>

#include "connector/http/WebSocket.h"
#include "connector/http/engine/Loop.h"
#include "connector/http/engine/Stream.h"
#include "connector/http/engine/UpgradeAsked.h"

namespace connector::http::engine {

/// Answers the handshake and serves the WebSocket on the loop from then on. The loop's thread.
void startWebSocket(Stream stream, Loop& loop, std::unique_ptr<ConnectionCount> count, const UpgradeAsked& asked,
                    const HttpResponse& response);

} // namespace connector::http::engine
