#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "connector/Export.h"
#include "connector/core/Address.h"

namespace connector::http {

/// Which address serves which path. A route's path matches itself and everything below it in whole segments ("/a"
/// matches
/// "/a" and "/a/b", not "/ab"); the longest wins; the empty path matches all. Threads: any, while requests are in
/// flight.
class CONNECTOR_API HttpRouter : public std::enable_shared_from_this<HttpRouter>
{
public:
    virtual ~HttpRouter() = default;
    /// Replaces a route of the same path. Throws std::invalid_argument for a path that is neither empty nor starts with
    /// "/", ends with "/" or holds an empty segment.
    virtual void addRoute(const std::string& path, Address address) = 0;
    /// A route added several times goes with the last removal, so that a provider may be replaced by its successor at
    /// any moment. An unknown path is ignored.
    virtual void removeRoute(const std::string& path) = 0;
    /// Empty when no route matches.
    virtual Address findAddress(const std::string& path) = 0;
    /// In path order.
    virtual std::vector<std::pair<std::string, Address>> listRoutes() = 0;
    virtual std::shared_ptr<HttpRouter> getPtr() = 0;
};

/// Adds a family's routes while it lives.
class CONNECTOR_API HttpRouteProvider
{
public:
    virtual ~HttpRouteProvider();
    HttpRouteProvider(const HttpRouteProvider&) = delete;
    HttpRouteProvider& operator=(const HttpRouteProvider&) = delete;

protected:
    explicit HttpRouteProvider(std::shared_ptr<HttpRouter> router);
    void add(const std::string& path, Address address);

private:
    std::shared_ptr<HttpRouter> router_;
    std::vector<std::string> paths_;
};

} // namespace connector::http
