#include "connector/engine_tasks/Client.h"

#include "connector/http/HttpSession.h"

namespace connector::engine_tasks {

Client clientOf(const Context& context)
{
    if (const auto& session = context.httpSession())
        return clientOfSession(session->id());
    if (context.transport() == Context::Transport::process)
        return {"process", "a part of this process"};
    return {"programs", "a program"};
}

Client clientOfSession(const std::string& httpSessionId) { return {"session " + httpSessionId, "a browser"}; }

} // namespace connector::engine_tasks
