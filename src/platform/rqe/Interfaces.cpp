// The destructors of the pure interfaces: they anchor the type information in this library.

#include "platform/rqe/Interpreter.h"
#include "platform/rqe/LocalRQE.h"
#include "platform/rqe/RQE.h"

namespace rqe {

OutputSink::~OutputSink() = default;
std::optional<std::string> OutputSink::readLine(std::chrono::milliseconds) { return std::string(); }
Interpreter::~Interpreter() = default;
Task::~Task() = default;
EngineListener::~EngineListener() = default;
RQE::~RQE() = default;
LanguageHost::~LanguageHost() = default;

} // namespace rqe
