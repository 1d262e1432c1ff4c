#include "connector/common_services/EchoServiceProvider.h"

namespace connector::common_services {

Echo::~Echo() = default;

MessageFuture EchoServiceProvider::deliver(std::unique_ptr<Message>&& message, Address&&, std::shared_ptr<Context>&&)
{
    if (!isRunning())
        return makeFailedFuture<std::unique_ptr<Message>>(std::runtime_error("Service exists but is not running."));
    if (!message)
        return makeFailedFuture<std::unique_ptr<Message>>(std::invalid_argument("There is no message to echo."));
    return makeReadyFuture(std::move(message));
}

} // namespace connector::common_services
