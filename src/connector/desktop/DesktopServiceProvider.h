#pragma once

#include <functional>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/desktop/DesktopMessages.h"
#include "platform/rqe/RQE.h"

namespace connector::desktop::v1 {

class LookDesk;
class StateNews;
class VariableWatch;

/// What a console attached to the running interpreter needs besides evaluation. Requests are tasks of the engine, in
/// the order of arrival, but those that only look are answered beside what runs; each is answered with the response of
/// its name. Faults: "notFound" (no such variable, or nothing at the path), "badRequest" (std::invalid_argument),
/// "scriptError" and "interrupted" (details error, traceback), "busy" (too many requests wait, or nobody can look now),
/// "unavailable" (no interpreter, or it is shutting down), "cancelled".
class CONNECTOR_API DesktopServiceProvider : public ServiceProviderAPI<DesktopServiceProvider>
{
public:
    virtual MessageFuture handleWorkspace(std::unique_ptr<Workspace>&& message, Address&& rest,
                                          std::shared_ptr<Context>&& context) = 0;
    virtual MessageFuture handleVariable(std::unique_ptr<Variable>&& message, Address&& rest,
                                         std::shared_ptr<Context>&& context) = 0;
    virtual MessageFuture handleSetVariable(std::unique_ptr<SetVariable>&& message, Address&& rest,
                                            std::shared_ptr<Context>&& context) = 0;
    virtual MessageFuture handleClearVariable(std::unique_ptr<ClearVariable>&& message, Address&& rest,
                                              std::shared_ptr<Context>&& context) = 0;
    virtual MessageFuture handleVariableChange(std::unique_ptr<VariableChange>&& message, Address&& rest,
                                               std::shared_ptr<Context>&& context) = 0;
    virtual MessageFuture handleTabCompletion(std::unique_ptr<TabCompletion>&& message, Address&& rest,
                                              std::shared_ptr<Context>&& context) = 0;
    virtual MessageFuture handleCurrentFolder(std::unique_ptr<CurrentFolder>&& message, Address&& rest,
                                              std::shared_ptr<Context>&& context) = 0;
};

class CONNECTOR_API DesktopServiceProviderImpl final : public DesktopServiceProvider
{
public:
    /// `engine` may be empty: every request then fails with the fault "unavailable".
    explicit DesktopServiceProviderImpl(boost::shared_ptr<rqe::RQE> engine);

    /// Also a filter of containers: answers a ContainerRequest with itself, in which the looks are in order that stand
    /// behind other messages.
    MessageFuture deliver(std::unique_ptr<Message>&& message, Address&& address,
                          std::shared_ptr<Context>&& context) override;

    MessageFuture handleWorkspace(std::unique_ptr<Workspace>&& message, Address&& rest,
                                  std::shared_ptr<Context>&& context) override;
    MessageFuture handleVariable(std::unique_ptr<Variable>&& message, Address&& rest,
                                 std::shared_ptr<Context>&& context) override;
    MessageFuture handleSetVariable(std::unique_ptr<SetVariable>&& message, Address&& rest,
                                    std::shared_ptr<Context>&& context) override;
    MessageFuture handleClearVariable(std::unique_ptr<ClearVariable>&& message, Address&& rest,
                                      std::shared_ptr<Context>&& context) override;
    MessageFuture handleVariableChange(std::unique_ptr<VariableChange>&& message, Address&& rest,
                                       std::shared_ptr<Context>&& context) override;
    MessageFuture handleTabCompletion(std::unique_ptr<TabCompletion>&& message, Address&& rest,
                                      std::shared_ptr<Context>&& context) override;
    MessageFuture handleCurrentFolder(std::unique_ptr<CurrentFolder>&& message, Address&& rest,
                                      std::shared_ptr<Context>&& context) override;

protected:
    void starting() override;
    void stopped() override;

private:
    MessageFuture look(const LookRequest& request, const std::shared_ptr<Context>& context,
                       std::function<std::unique_ptr<Message>(rqe::Interpreter&)> work);

    const boost::shared_ptr<rqe::RQE> engine_;
    const std::shared_ptr<LookDesk> looks_;
    const std::shared_ptr<VariableWatch> watch_;
    const std::shared_ptr<StateNews> news_;
};

} // namespace connector::desktop::v1
