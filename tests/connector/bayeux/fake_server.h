#pragma once

#include <stdexcept>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux::test {

/// A server as transports see it: notes what comes and answers as a test wants. Nothing else of it may be used.
class FakeServer final : public BayeuxServer
{
public:
    struct Asked
    {
        std::string body;
        BayeuxOrigin origin;
    };

    std::function<Future<std::string>(const std::string& body)> answer = [](const std::string& body) {
        return makeReadyFuture("[" + body + "]");
    };

    std::vector<Asked> asked() const
    {
        std::lock_guard lock(mutex_);
        return asked_;
    }
    std::vector<std::shared_ptr<BayeuxChannelSink>> closed() const
    {
        std::lock_guard lock(mutex_);
        return closed_;
    }
    bool isRunning() const { return running_; }

    Future<std::string> handle(const std::string& body, const BayeuxOrigin& origin) override
    {
        {
            std::lock_guard lock(mutex_);
            asked_.push_back({body, origin});
        }
        return answer(body);
    }
    void webSocketClosed(const std::shared_ptr<BayeuxChannelSink>& webSocket) override
    {
        std::lock_guard lock(mutex_);
        closed_.push_back(webSocket);
    }
    void start() override { running_ = true; }
    void stop() override { running_ = false; }
    std::shared_ptr<BayeuxServer> getPtr() override { return shared_from_this(); }

    void publish(const std::string&, const Poco::Dynamic::Var&) override { unused(); }
    void publish(EventPtr) override { unused(); }
    void publishText(const std::string&, std::string_view) override { unused(); }
    Registration reserve(const std::string&) override { unused(); }
    bool isReserved(const std::string&) const override { unused(); }
    void waitForRoom(const std::string&, std::chrono::milliseconds, const std::function<bool()>&) override { unused(); }
    Registration subscribe(const std::string&, Subscriber) override { unused(); }
    Registration handleService(const std::string&, ServiceHandler, const ServiceOptions&) override { unused(); }
    SessionPtr openLocalSession(const std::string&, Subscriber) override { unused(); }
    void publishAs(const BayeuxSession&, const std::string&, const Poco::Dynamic::Var&) override { unused(); }
    SessionPtr findSession(const std::string&) const override { unused(); }
    std::vector<SessionPtr> sessions() const override { unused(); }
    std::vector<SessionPtr> subscribers(const std::string&) const override { unused(); }
    void setPolicy(std::shared_ptr<BayeuxSecurityPolicy>, bool) override { unused(); }
    void setChannelOptions(const std::string&, const ChannelOptions&) override { unused(); }
    Registration addRule(const std::string&, const ChannelRule&) override { unused(); }
    std::vector<BayeuxSessionInfo> describeSessions() const override { unused(); }
    bool endSession(const std::string&) override { unused(); }
    void setLimits(const BayeuxLimits&) override { unused(); }
    BayeuxLimits limits() const override { unused(); }
    Registration addListener(std::shared_ptr<BayeuxListener>) override { unused(); }
    BayeuxCounters counters() const override { unused(); }

private:
    [[noreturn]] static void unused() { throw std::logic_error("A transport called what is not its own."); }

    mutable std::mutex mutex_;
    std::vector<Asked> asked_;
    std::vector<std::shared_ptr<BayeuxChannelSink>> closed_;
    std::atomic<bool> running_{false};
};

} // namespace connector::bayeux::test
