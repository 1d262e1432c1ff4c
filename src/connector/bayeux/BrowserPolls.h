#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace connector::bayeux {

/// How many connects each browser (its HTTP session) has held: browsers open few connections to one server, and held
/// ones starve the rest. Threads: any.
class BrowserPolls : public std::enable_shared_from_this<BrowserPolls>
{
public:
    /// Held while it lives; null when `maximum` are held already.
    std::shared_ptr<void> enter(const std::string& httpSessionId, unsigned maximum);

private:
    void leave(const std::string& httpSessionId);

    std::mutex mutex_;
    std::unordered_map<std::string, unsigned> held_;
};

} // namespace connector::bayeux
