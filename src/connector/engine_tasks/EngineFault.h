#pragma once

#include <boost/smart_ptr/weak_ptr.hpp>

#include "connector/core/CancellationToken.h"
#include "connector/core/ServiceFault.h"
#include "platform/rqe/RQE.h"

namespace connector::engine_tasks {

/// What a client is told when the engine did not run its task: "busy", "cancelled" or "unavailable". Any thread.
ServiceFault faultOf(const rqe::EngineError& error);

/// What a client is told of an exception of the script's: "interrupted" or "scriptError", with the exception's "error"
/// (its type) and "traceback" added to `details`. Any thread.
ServiceFault faultOf(const rqe::ScriptError& error, ServiceFault::Details details = {});

/// Takes a task that has not begun out of the engine's queue when `cancellation` asks for it; one that has begun goes
/// on, since others may wait for its effects. Until the result dies. Any thread.
[[nodiscard]] CancellationToken::Registration takeOutWhenCancelled(CancellationToken& cancellation,
                                                                   boost::weak_ptr<rqe::RQE> engine, rqe::TaskId task);

} // namespace connector::engine_tasks
