#pragma once

#include <map>
#include <mutex>

#include "connector/http/HttpRouter.h"

namespace connector::http {

/// The routes of this process. A lookup works on a table that nobody changes; a change makes a new one.
class CONNECTOR_API HttpRouterImpl final : public HttpRouter
{
public:
    /// Throws as `addRoute` does.
    explicit HttpRouterImpl(std::vector<std::pair<std::string, Address>>&& routes);

    void addRoute(const std::string& path, Address address) override;
    void removeRoute(const std::string& path) override;
    Address findAddress(const std::string& path) override;
    std::vector<std::pair<std::string, Address>> listRoutes() override;
    std::shared_ptr<HttpRouter> getPtr() override { return shared_from_this(); }

private:
    struct Table
    {
        struct Route
        {
            Address address;
            int added = 0; ///< how many times, less how many times removed
        };
        std::map<std::string, Route, std::less<>> routes;
        std::size_t longest = 0;
    };

    std::shared_ptr<const Table> table() const;
    void replaceTable(Table table);

    std::mutex changes_;       ///< held while a new table is made
    mutable std::mutex mutex_; ///< held while the pointer is read or set
    std::shared_ptr<const Table> table_;
};

} // namespace connector::http
