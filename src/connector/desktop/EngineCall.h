#pragma once

#include <exception>
#include <functional>
#include <memory>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/core/ServiceProvider.h"
#include "platform/rqe/RQE.h"

namespace connector::desktop::v1 {

/// Makes an answer on the interpreter thread.
using EngineWork = std::function<std::unique_ptr<Message>(rqe::Interpreter&)>;

/// How many tasks may wait at the engine for another one to be taken in.
inline constexpr std::size_t kMaxQueued = 1'000;

/// Runs `work` as a task of the engine, after those that wait; a task that has not begun is taken out when the client
/// goes away. Throws ServiceFault "unavailable" without an engine or when it is closed, "busy" when too many wait. The
/// future fails with "scriptError", "interrupted", "notFound" (std::out_of_range), "cancelled" or "unavailable"; other
/// exceptions of `work` come through as they are. Threads: any.
MessageFuture callEngine(const boost::shared_ptr<rqe::RQE>& engine, const std::shared_ptr<Context>& context,
                         EngineWork work);

/// The failure for a client that an exception of the engine or of a task stands for.
std::exception_ptr faultOf(const std::exception_ptr& reason);

} // namespace connector::desktop::v1
