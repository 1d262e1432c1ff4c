#include "connector/container/ContainerMessages.h"

#include "connector/container/ContainerServiceProvider.h"
#include "connector/container/Gathering.h"
#include "connector/core/Connector.h"
#include "connector/json/JsonSerializer.h"

namespace connector::container::v1 {

ContainerScope::~ContainerScope() = default;

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

MessageFuture answerEach(std::unique_ptr<ContainerRequest> request,
                         const std::function<MessageFuture(std::unique_ptr<Message>)>& serve)
{
    auto gathering = std::make_shared<Gathering>(*request);
    auto result = gathering->future();
    for (std::size_t i = 0; i < request->entries.size(); ++i) {
        auto& entry = request->entries[i];
        try {
            if (entry.failure)
                std::rethrow_exception(entry.failure);
            serve(std::move(entry.message)).then([gathering, i](MessageFuture answer) {
                gathering->take(i, std::move(answer));
                return true;
            });
        } catch (...) {
            gathering->fail(i, std::current_exception());
        }
    }
    gathering->allSent();
    return result;
}

std::unique_ptr<ContainerResponse> refuseEach(std::unique_ptr<ContainerRequest> request,
                                              const std::exception_ptr& failure)
{
    auto response = std::make_unique<ContainerResponse>();
    response->id = request->id;
    response->bare = request->bare;
    response->scopes = std::move(request->scopes);
    for (const auto& entry : request->entries)
        response->entries.push_back({entry.id, std::make_unique<Fault>(entry.failure ? entry.failure : failure)});
    return response;
}

} // namespace connector::container::v1
