#pragma once

#include <chrono>
#include <memory>

#include "connector/bayeux/BayeuxServer.h"
#include "platform/rqe/MessageBus.h"

namespace connector::bayeux {

/// The bus as the host's scripts have it. Who publishes faster than subscribers read is made to wait, at most
/// `kPatience` for all of them together: who stands still longer is on its own.
class CONNECTOR_API ScriptBus final : public rqe::MessageBus
{
public:
    static constexpr std::chrono::milliseconds kPatience{1'000};

    explicit ScriptBus(std::shared_ptr<BayeuxServer> server) : server_(std::move(server)) {}

    void publish(const std::string& channel, const std::string& json, const GoOn& goOn) override;
    void tell(const std::string& channel, const std::string& json) override;
    bool hasSubscribers(const std::string& channel) const override;
    bool isReserved(const std::string& channel) const override;
    std::function<void()> subscribe(const std::string& channel, Receiver receiver) override;
    std::function<void()> serve(const std::string& channel, Server server) override;
    std::function<void()> rule(const std::string& channel, const rqe::ChannelRule& rule) override;
    std::vector<rqe::BusSession> sessions() const override;
    bool endSession(const std::string& id) override;

private:
    const std::shared_ptr<BayeuxServer> server_;
};

} // namespace connector::bayeux
