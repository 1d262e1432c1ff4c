#pragma once

#include <chrono>
#include <memory>

#include "connector/configuration/Configuration.h"
#include "platform/rqe/RQE.h"

namespace connector::interpreter::v1 {

/// What the configuration says of requests to the interpreter, whichever way they come. Threads: any.
class EvaluationSettings
{
public:
    explicit EvaluationSettings(std::shared_ptr<configuration::Configuration> configuration)
        : configuration_(std::move(configuration))
    {}

    /// Throws ServiceFault "unavailable" without an engine, "busy" when as many requests wait as may.
    void requirePlace(const rqe::RQE* engine) const;
    std::size_t maxOutputBytes() const;
    /// How long an evaluation goes on after its client left.
    std::chrono::milliseconds grace() const;

private:
    const std::shared_ptr<configuration::Configuration> configuration_;
};

} // namespace connector::interpreter::v1
