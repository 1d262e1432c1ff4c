#include "connector/container/ContainerMessages.h"

#include "connector/container/ContainerServiceProvider.h"
#include "connector/core/Connector.h"
#include "connector/json/JsonSerializer.h"

namespace connector::container::v1 {

MessageFuture ContainerRequest::deliverTo(std::shared_ptr<ContainerServiceProvider> provider,
                                          std::unique_ptr<Message>&& message, Address&& address,
                                          std::shared_ptr<Context>&& context)
{
    std::unique_ptr<ContainerRequest> request(static_cast<ContainerRequest*>(message.release()));
    return provider->handleRequest(std::move(request), std::move(address), std::move(context));
}

MessageFuture ContainerResponse::deliverTo(std::shared_ptr<ContainerServiceProvider> provider,
                                           std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context)
{
    std::unique_ptr<ContainerResponse> response(static_cast<ContainerResponse*>(message.release()));
    return provider->handleResponse(std::move(response), std::move(address), std::move(context));
}

Fault::Fault(const std::exception_ptr& failure)
{
    try {
        std::rethrow_exception(failure);
    } catch (const ServiceFault& fault) {
        code = fault.code();
        message = fault.what();
        details = fault.details();
    } catch (const json::JsonError& error) {
        code = "badMessage";
        message = error.what();
    } catch (const UnknownServiceProvider& error) {
        code = "unavailable";
        message = error.what();
    } catch (const FutureCancelled& error) {
        code = "cancelled";
        message = error.what();
    } catch (const std::invalid_argument& error) {
        code = "badRequest";
        message = error.what();
    } catch (const std::exception& error) {
        code = "internal";
        message = error.what();
    } catch (...) {
        code = "internal";
        message = "Unknown failure.";
    }
}

MessageFuture ContainerServiceProvider::handleResponse(std::unique_ptr<ContainerResponse>&& response, Address&& rest,
                                                       std::shared_ptr<Context>&& context)
{
    if (!rest.empty())
        return context->connector()->handle(std::move(response), std::move(rest), std::shared_ptr<Context>(context));
    return makeReadyFuture<std::unique_ptr<Message>>(std::move(response));
}

} // namespace connector::container::v1
