// The destructors of the pure interfaces: they anchor the type information in this library.

#include <stdexcept>
#include <utility>

#include "platform/rqe/Interpreter.h"
#include "platform/rqe/LocalRQE.h"
#include "platform/rqe/RQE.h"

namespace rqe {

OutputSink::~OutputSink() = default;
bool OutputSink::tryWrite(Stream, std::string_view) { return false; }
std::optional<std::string> OutputSink::readLine(std::chrono::milliseconds) { return std::string(); }
void OutputSink::stopReading() {}
Interpreter::~Interpreter() = default;
Task::~Task() = default;
const std::string& Task::client() const noexcept
{
    static const std::string nobody;
    return nobody;
}
std::string Task::about() const { return {}; }
EngineListener::~EngineListener() = default;
RQE::~RQE() = default;

bool RQE::interruptClient(const std::string&) { return false; }
std::string RQE::aboutRunning() const { return {}; }
TaskId RQE::look(std::unique_ptr<Task> task) { return post(std::move(task)); }

LanguageHost::~LanguageHost() = default;

void LanguageHost::withLook(const std::function<void(Interpreter&)>&)
{
    throw std::logic_error("This host lets nobody look while it is busy.");
}

} // namespace rqe
