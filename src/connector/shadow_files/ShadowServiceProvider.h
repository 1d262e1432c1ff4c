#pragma once

#include "connector/container/ContainerServiceProvider.h"
#include "connector/shadow_files/ShadowService.h"

namespace connector::shadow_files::v1 {

class ShadowServiceProvider;

/// Loads a client type file.
class CONNECTOR_API LoadClientTypeFile final : public ServiceMessage<ShadowServiceProvider>
{
public:
    std::string path; ///< absolute, UTF-8

    MessageFuture deliverTo(std::shared_ptr<ShadowServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API LoadClientTypeFileResponse final : public Message
{
public:
    explicit LoadClientTypeFileResponse(ClientTypeFile loaded) : file(std::move(loaded)) {}
    ClientTypeFile file;
};

/// Asks for the text of a behaviour.
class CONNECTOR_API GetBehavior final : public ServiceMessage<ShadowServiceProvider>
{
public:
    std::string name;
    std::string clientType; ///< empty for that of the client that asks

    MessageFuture deliverTo(std::shared_ptr<ShadowServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API GetBehaviorResponse final : public Message
{
public:
    explicit GetBehaviorResponse(std::optional<std::string> found) : text(std::move(found)) {}
    std::optional<std::string> text; ///< none when no file says any
};

class CONNECTOR_API ShadowServiceProvider : public ServiceProviderAPI<ShadowServiceProvider>
{
public:
    /// Reads a small local file on the calling thread. Throws as ShadowService::loadClientTypeFile.
    virtual LoadClientTypeFileResponse loadClientTypeFile(const LoadClientTypeFile& request) = 0;
    virtual GetBehaviorResponse getBehavior(const GetBehavior& request, const Context& context) = 0;
};

class CONNECTOR_API ShadowServiceProviderImpl final : public ShadowServiceProvider
{
public:
    explicit ShadowServiceProviderImpl(std::shared_ptr<ShadowService> service) : service_(std::move(service)) {}

    LoadClientTypeFileResponse loadClientTypeFile(const LoadClientTypeFile& request) override;
    GetBehaviorResponse getBehavior(const GetBehavior& request, const Context& context) override;

private:
    const std::shared_ptr<ShadowService> service_;
};

/// A filter of containers: while one is on its way, the folders of its client type are on the search path. They come
/// off when its answers pass, or with the container when that never happens. The path is the interpreter's only one:
/// what runs for other clients meanwhile sees the folders too. Single messages are handed on as they are.
class CONNECTOR_API ShadowContainerServiceProvider final : public container::v1::ContainerServiceProvider
{
public:
    explicit ShadowContainerServiceProvider(std::shared_ptr<ShadowService> service) : service_(std::move(service)) {}

    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                          std::shared_ptr<Context>&& context) override;
    /// Every message is answered with the fault "busy" when the engine has no room to change the path.
    MessageFuture handleRequest(std::unique_ptr<container::v1::ContainerRequest>&& request, Address&& rest,
                                std::shared_ptr<Context>&& context) override;
    MessageFuture handleResponse(std::unique_ptr<container::v1::ContainerResponse>&& response, Address&& rest,
                                 std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<ShadowService> service_;
};

} // namespace connector::shadow_files::v1
