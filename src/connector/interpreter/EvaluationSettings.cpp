#include "connector/interpreter/EvaluationSettings.h"

#include "connector/core/ServiceFault.h"

namespace connector::interpreter::v1 {

void EvaluationSettings::requirePlace(const rqe::RQE* engine) const
{
    if (!engine)
        throw ServiceFault("unavailable", "There is no interpreter in this process.");
    if (engine->queued() >= static_cast<std::size_t>(configuration_->getInteger("interpreter.maxQueued")))
        throw ServiceFault("busy", "Too many requests wait for the interpreter.");
}

std::size_t EvaluationSettings::maxOutputBytes() const
{
    return static_cast<std::size_t>(configuration_->getInteger("interpreter.maxOutputBytes"));
}

std::chrono::milliseconds EvaluationSettings::grace() const
{
    return std::chrono::seconds(configuration_->getInteger("interpreter.graceSeconds"));
}

} // namespace connector::interpreter::v1
