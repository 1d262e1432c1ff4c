#include "connector/http/HttpRouter.h"

#include <stdexcept>

namespace connector::http {

HttpRouteProvider::HttpRouteProvider(std::shared_ptr<HttpRouter> router) : router_(std::move(router))
{
    if (!router_)
        throw std::invalid_argument("A route provider needs a router.");
}

HttpRouteProvider::~HttpRouteProvider()
{
    for (const auto& path : paths_)
        router_->removeRoute(path);
}

void HttpRouteProvider::add(const std::string& path, Address address)
{
    paths_.reserve(paths_.size() + 1);
    router_->addRoute(path, std::move(address));
    paths_.push_back(path);
}

} // namespace connector::http
