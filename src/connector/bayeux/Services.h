#pragma once

#include <map>
#include <mutex>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

/// The functions behind service channels. Threads: any.
class Services
{
public:
    struct Service
    {
        BayeuxServer::ServiceHandler handler;
        ServiceOptions options;
    };
    using ServicePtr = std::shared_ptr<const Service>;

    /// The newest service of a channel serves it; when it goes, the one before does again.
    void add(const std::string& channel, ServicePtr service);
    void remove(const std::string& channel, const ServicePtr& service);
    /// That of the channel itself, else of the closest pattern; null for none.
    ServicePtr find(const std::string& channel) const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::vector<ServicePtr>> services_; ///< the newest last; none is empty
};

} // namespace connector::bayeux
