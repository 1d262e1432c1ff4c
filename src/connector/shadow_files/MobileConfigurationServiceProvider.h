#pragma once

#include "connector/container/ContainerServiceProvider.h"
#include "connector/shadow_files/MobileConfigurationService.h"

namespace connector::shadow_files::v1 {

/// Base of the messages to the mobile configuration; each calls one operation of it.
class CONNECTOR_API MobileConfigurationMessage : public Message
{
public:
    virtual MessageFuture sendTo(MobileConfigurationService& service) const = 0;
};

class CONNECTOR_API SetBgColor final : public MobileConfigurationMessage
{
public:
    std::string color; ///< "#rrggbb"

    MessageFuture sendTo(MobileConfigurationService& service) const override;
};

class CONNECTOR_API ResetBgColor final : public MobileConfigurationMessage
{
public:
    MessageFuture sendTo(MobileConfigurationService& service) const override;
};

class CONNECTOR_API ChangeDefaultFigureColor final : public MobileConfigurationMessage
{
public:
    std::string color; ///< "#rrggbb"

    MessageFuture sendTo(MobileConfigurationService& service) const override;
};

/// The answers; `applied`: a plotting library was there and follows at once.
template <class Request>
class MobileConfigurationResponse final : public Message
{
public:
    explicit MobileConfigurationResponse(bool told) : applied(told) {}
    bool applied;
};

/// Serves the messages above, one by one or a container of them; before others in an address it hands containers on.
class CONNECTOR_API MobileConfigurationContainerServiceProvider final : public container::v1::ContainerServiceProvider
{
public:
    explicit MobileConfigurationContainerServiceProvider(std::shared_ptr<MobileConfigurationService> service)
        : service_(std::move(service))
    {}

    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                          std::shared_ptr<Context>&& context) override;
    MessageFuture handleRequest(std::unique_ptr<container::v1::ContainerRequest>&& request, Address&& rest,
                                std::shared_ptr<Context>&& context) override;

private:
    const std::shared_ptr<MobileConfigurationService> service_;
};

} // namespace connector::shadow_files::v1
