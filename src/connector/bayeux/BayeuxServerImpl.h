#pragma once

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

/// Takes requests from `start` on. Ends its sessions when it dies.
class CONNECTOR_API BayeuxServerImpl final : public BayeuxServer
{
public:
    BayeuxServerImpl();
    ~BayeuxServerImpl() override;
    BayeuxServerImpl(const BayeuxServerImpl&) = delete;
    BayeuxServerImpl& operator=(const BayeuxServerImpl&) = delete;

    Future<std::string> handle(const std::string& body, const BayeuxOrigin& origin) override;
    void webSocketClosed(const std::shared_ptr<BayeuxChannelSink>& webSocket) override;
    void publish(const std::string& channel, const Poco::Dynamic::Var& data) override;
    void publish(EventPtr event) override;
    void publishText(const std::string& channel, std::string_view json) override;
    [[nodiscard]] Registration reserve(const std::string& channel) override;
    bool isReserved(const std::string& channel) const override;
    void waitForRoom(const std::string& channel, std::chrono::milliseconds patience,
                     const std::function<bool()>& goOn) override;
    [[nodiscard]] Registration subscribe(const std::string& channel, Subscriber subscriber) override;
    using BayeuxServer::handleService;
    [[nodiscard]] Registration handleService(const std::string& channel, ServiceHandler handler,
                                             const ServiceOptions& options) override;
    SessionPtr openLocalSession(const std::string& name, Subscriber deliveries) override;
    void publishAs(const BayeuxSession& sender, const std::string& channel, const Poco::Dynamic::Var& data) override;
    SessionPtr findSession(const std::string& id) const override;
    std::vector<SessionPtr> sessions() const override;
    std::vector<BayeuxSessionInfo> describeSessions() const override;
    bool endSession(const std::string& publicId) override;
    std::vector<SessionPtr> subscribers(const std::string& channel) const override;
    bool hasReceivers(const std::string& channel) const override;
    void setPolicy(std::shared_ptr<BayeuxSecurityPolicy> policy, bool recheck) override;
    void setChannelOptions(const std::string& channel, const ChannelOptions& options) override;
    [[nodiscard]] Registration addRule(const std::string& channel, const ChannelRule& rule) override;
    void setLimits(const BayeuxLimits& limits) override;
    BayeuxLimits limits() const override;
    [[nodiscard]] Registration addListener(std::shared_ptr<BayeuxListener> listener) override;
    BayeuxCounters counters() const override;
    void start() override;
    void stop() override;
    std::shared_ptr<BayeuxServer> getPtr() override { return shared_from_this(); }

private:
    struct State;
    const std::unique_ptr<State> state_;
};

} // namespace connector::bayeux
