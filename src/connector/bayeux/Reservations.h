#pragma once

#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

namespace connector::bayeux {

/// The channels and patterns on which only the system speaks; as often as each was added. There are few. Threads: any.
class Reservations
{
public:
    void add(const std::string& name);
    void remove(const std::string& name);
    bool covers(std::string_view channel) const;

private:
    mutable std::shared_mutex mutex_;
    std::vector<std::string> names_;
};

} // namespace connector::bayeux
