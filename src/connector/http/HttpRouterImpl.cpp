#include "connector/http/HttpRouterImpl.h"

#include <stdexcept>

namespace connector::http {

namespace {

void checkPath(const std::string& path)
{
    if (path.empty())
        return;
    if (path.front() != '/' || path.back() == '/' || path.find("//") != std::string::npos)
        throw std::invalid_argument("Not the path of a route: \"" + path + "\"");
}

} // namespace

HttpRouterImpl::HttpRouterImpl(std::vector<std::pair<std::string, Address>>&& routes)
{
    Table table;
    for (auto& [path, address] : routes) {
        checkPath(path);
        auto& route = table.routes[path];
        route.address = std::move(address);
        ++route.added;
    }
    replaceTable(std::move(table));
}

void HttpRouterImpl::addRoute(const std::string& path, Address address)
{
    checkPath(path);
    std::lock_guard lock(changes_);
    Table changed = *table();
    auto& route = changed.routes[path];
    route.address = std::move(address);
    ++route.added;
    replaceTable(std::move(changed));
}

void HttpRouterImpl::removeRoute(const std::string& path)
{
    std::lock_guard lock(changes_);
    Table changed = *table();
    const auto found = changed.routes.find(path);
    if (found == changed.routes.end())
        return;
    if (--found->second.added == 0)
        changed.routes.erase(found);
    replaceTable(std::move(changed));
}

Address HttpRouterImpl::findAddress(const std::string& path)
{
    const auto current = table();
    // From the longest candidate to the shortest, each cut at a slash; none can be longer than the longest route.
    std::string_view candidate = path;
    if (candidate.size() > current->longest) {
        const auto slash = candidate.rfind('/', current->longest);
        candidate = candidate.substr(0, slash == std::string_view::npos ? 0 : slash);
    }
    for (;;) {
        const auto found = current->routes.find(candidate);
        if (found != current->routes.end())
            return found->second.address;
        if (candidate.empty())
            return {};
        const auto slash = candidate.rfind('/');
        candidate = candidate.substr(0, slash == std::string_view::npos ? 0 : slash);
    }
}

std::vector<std::pair<std::string, Address>> HttpRouterImpl::listRoutes()
{
    const auto current = table();
    std::vector<std::pair<std::string, Address>> routes;
    for (const auto& [path, route] : current->routes)
        routes.emplace_back(path, route.address);
    return routes;
}

std::shared_ptr<const HttpRouterImpl::Table> HttpRouterImpl::table() const
{
    std::lock_guard lock(mutex_);
    return table_;
}

void HttpRouterImpl::replaceTable(Table table)
{
    table.longest = 0;
    for (const auto& [path, address] : table.routes)
        table.longest = std::max(table.longest, path.size());
    std::shared_ptr<const Table> replacement = std::make_shared<const Table>(std::move(table));
    std::lock_guard lock(mutex_);
    table_.swap(replacement);
}

} // namespace connector::http
