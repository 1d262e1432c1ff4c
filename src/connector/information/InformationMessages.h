#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"

namespace connector::information::v1 {

class InformationServiceProvider;

/// Base of the requests to "connector/v1/information".
using InformationMessage = ServiceMessage<InformationServiceProvider>;

/// Asks what is known about the client that asks.
class CONNECTOR_API GetCurrentClientProperties final : public InformationMessage
{
public:
    MessageFuture deliverTo(std::shared_ptr<InformationServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API GetCurrentClientPropertiesResponse final : public Message
{
public:
    std::string clientType; ///< empty when the client did not say
    std::string sessionId;  ///< the public one; empty outside a session
    Context::Transport transport = Context::Transport::process;
    std::map<std::string, std::string> properties; ///< what the client told and its session keeps
};

/// Asks for the folder that counts as the user's home.
class CONNECTOR_API GetUserHomeDir final : public InformationMessage
{
public:
    MessageFuture deliverTo(std::shared_ptr<InformationServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API GetUserHomeDirResponse final : public Message
{
public:
    std::string path; ///< absolute, UTF-8; empty when the process has no home
};

/// Sets it: for the client's HTTP session, or for the process where there is none.
class CONNECTOR_API SetUserHomeDir final : public InformationMessage
{
public:
    std::string path; ///< UTF-8

    MessageFuture deliverTo(std::shared_ptr<InformationServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API SetUserHomeDirResponse final : public Message
{
public:
    std::string path; ///< as it is kept: without "." and "..", double or trailing separators
};

/// Asks which services there are.
class CONNECTOR_API ServiceRegistryRequest final : public InformationMessage
{
public:
    MessageFuture deliverTo(std::shared_ptr<InformationServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API ServiceRegistryRequestResponse final : public Message
{
public:
    std::map<std::string, bool> services; ///< by name; true: it runs
};

/// Asks what a client can count on.
class CONNECTOR_API EnabledFeatures final : public InformationMessage
{
public:
    MessageFuture deliverTo(std::shared_ptr<InformationServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API EnabledFeaturesResponse final : public Message
{
public:
    std::vector<std::pair<std::string, bool>> features; ///< in name order
};

} // namespace connector::information::v1
