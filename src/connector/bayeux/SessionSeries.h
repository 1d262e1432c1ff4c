#pragma once

#include <atomic>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

class Session;

/// A series of a remote session, which decides about it.
class SessionSeries final : public BayeuxSeries
{
public:
    SessionSeries(std::shared_ptr<Session> session, std::string channel, std::uint64_t firstConnect);
    ~SessionSeries() override;

    bool deliver(EventPtr event) override;
    bool hasRoom() const override;
    bool isLost() const override { return lost_; }
    bool isAway() const override;
    void close() override;

private:
    friend class Session;

    const std::shared_ptr<Session> session_;
    const std::string channel_;
    const std::uint64_t firstConnect_; ///< by long polling: number of the connect with which it begins
    std::atomic<bool> lost_{false};    ///< changed with the session's lock held
};

} // namespace connector::bayeux
