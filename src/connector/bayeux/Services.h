#pragma once

#include <map>
#include <mutex>

#include "connector/bayeux/BayeuxServer.h"

namespace connector::bayeux {

/// The functions behind service channels. Threads: any.
class Services
{
public:
    using HandlerPtr = std::shared_ptr<const BayeuxServer::ServiceHandler>;

    /// Throws std::invalid_argument for a channel that has a handler.
    void add(const std::string& channel, HandlerPtr handler);
    void remove(const std::string& channel);
    /// That of the channel itself, else of the closest pattern; null for none.
    HandlerPtr find(const std::string& channel) const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, HandlerPtr> handlers_;
};

} // namespace connector::bayeux
