#pragma once

#include <memory>
#include <mutex>

#include "connector/bayeux/BayeuxServer.h"
#include "connector/configuration/Configuration.h"

namespace connector::bayeux {

/// The limits that the keys `bus.…` set. A queue holds at least one message of the greatest size, whatever the keys
/// say: else one that is within the limits would end every session that subscribed.
CONNECTOR_API BayeuxLimits readBusLimits(const configuration::Configuration& configuration);

/// Has a server follow the keys `bus.…`, from the constructor on and for as long as this lives.
class CONNECTOR_API BusSettings
{
public:
    BusSettings(std::shared_ptr<configuration::Configuration> configuration, std::shared_ptr<BayeuxServer> server);
    ~BusSettings();
    BusSettings(const BusSettings&) = delete;
    BusSettings& operator=(const BusSettings&) = delete;

private:
    class Follower;

    const std::shared_ptr<configuration::Configuration> configuration_;
    const std::shared_ptr<Follower> follower_;
    configuration::Configuration::ListenerId listener_ = 0;
};

} // namespace connector::bayeux
