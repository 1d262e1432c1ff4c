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

    /// The newest handler of a channel serves it; when it goes, the one before does again.
    void add(const std::string& channel, HandlerPtr handler);
    void remove(const std::string& channel, const HandlerPtr& handler);
    /// That of the channel itself, else of the closest pattern; null for none.
    HandlerPtr find(const std::string& channel) const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::vector<HandlerPtr>> handlers_; ///< the newest last; none is empty
};

} // namespace connector::bayeux
