#pragma once

#include <stdexcept>
#include <string>

#include "platform/Export.h"

namespace rqe {

/// What a script's own code raised. `what()` is the message; all texts are UTF-8.
class VENDRA_PLATFORM_API ScriptError : public std::runtime_error
{
public:
    /// `type`: the error's class as the script language names it ("ValueError"). `traceback`: as the language prints
    /// it, last line included; may be empty.
    ScriptError(std::string type, const std::string& message, std::string traceback);
    ~ScriptError() override;
    ScriptError(const ScriptError&) = default;
    ScriptError& operator=(const ScriptError&) = default;

    const std::string& type() const noexcept { return type_; }
    const std::string& traceback() const noexcept { return traceback_; }

private:
    std::string type_;
    std::string traceback_;
};

/// The engine cannot take or finish a task: its queue is full, it is closed, or the task was cancelled.
class VENDRA_PLATFORM_API EngineError : public std::runtime_error
{
public:
    enum class Reason
    {
        queueFull,
        closed,
        cancelled
    };
    EngineError(Reason reason, const std::string& message);
    ~EngineError() override;
    EngineError(const EngineError&) = default;
    EngineError& operator=(const EngineError&) = default;

    Reason reason() const noexcept { return reason_; }

private:
    Reason reason_;
};

/// What a look is after changes all the time, so that nothing could be said about it.
class VENDRA_PLATFORM_API UnsteadyError : public std::runtime_error
{
public:
    explicit UnsteadyError(const std::string& message);
    ~UnsteadyError() override;
    UnsteadyError(const UnsteadyError&) = default;
    UnsteadyError& operator=(const UnsteadyError&) = default;
};

} // namespace rqe
