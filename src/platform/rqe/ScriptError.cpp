#include "platform/rqe/ScriptError.h"

#include <utility>

namespace rqe {

ScriptError::ScriptError(std::string type, const std::string& message, std::string traceback)
    : std::runtime_error(message), type_(std::move(type)), traceback_(std::move(traceback))
{}

ScriptError::~ScriptError() = default;

EngineError::EngineError(Reason reason, const std::string& message) : std::runtime_error(message), reason_(reason) {}

EngineError::~EngineError() = default;

UnsteadyError::UnsteadyError(const std::string& message) : std::runtime_error(message) {}

UnsteadyError::~UnsteadyError() = default;

} // namespace rqe
