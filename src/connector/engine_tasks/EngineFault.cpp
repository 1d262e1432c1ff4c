#include "connector/engine_tasks/EngineFault.h"

#include <utility>

namespace connector::engine_tasks {

ServiceFault faultOf(const rqe::EngineError& error)
{
    switch (error.reason()) {
    case rqe::EngineError::Reason::queueFull:
        return {"busy", error.what()};
    case rqe::EngineError::Reason::cancelled:
        return {"cancelled", error.what()};
    case rqe::EngineError::Reason::closed:
        break;
    }
    return {"unavailable", error.what()};
}

ServiceFault faultOf(const rqe::ScriptError& error, ServiceFault::Details details)
{
    const bool interrupted = error.type() == "KeyboardInterrupt";
    details.emplace("error", error.type());
    details.emplace("traceback", error.traceback());
    return {interrupted ? "interrupted" : "scriptError", error.what(), std::move(details)};
}

CancellationToken::Registration takeOutWhenCancelled(CancellationToken& cancellation, boost::weak_ptr<rqe::RQE> engine,
                                                     rqe::TaskId task)
{
    return cancellation.onCancel([weak = std::move(engine), task] {
        if (const auto known = weak.lock())
            known->cancel(task);
    });
}

} // namespace connector::engine_tasks
