#include "connector/core/Context.h"

#include <stdexcept>

namespace connector {

Context::Context(std::weak_ptr<Connector> connector)
    : connector_(std::move(connector)), cancellation_(std::make_shared<CancellationToken>())
{}

std::shared_ptr<Connector> Context::connector() const
{
    if (auto connector = connector_.lock())
        return connector;
    throw std::runtime_error("The connector has been stopped.");
}

} // namespace connector
