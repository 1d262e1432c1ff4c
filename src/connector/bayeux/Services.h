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

    /// The newest service of a channel serves it; when it goes, the one before does again. One that steps back serves
    /// what is left.
    void add(const std::string& channel, ServicePtr service);
    void remove(const std::string& channel, const ServicePtr& service);
    /// That of the channel itself, else of the closest pattern; null for none.
    ServicePtr find(const std::string& channel) const;

private:
    using Table = std::map<std::string, std::vector<ServicePtr>>; ///< the newest last; none is empty

    Table& tableOf(const Service& service) { return service.options.stepsBack ? left_ : first_; }

    mutable std::mutex mutex_;
    Table first_;
    Table left_; ///< those that step back
};

} // namespace connector::bayeux
