#include "connector/http/HttpResponseHeaderServiceProvider.h"

#include <set>

#include "connector/core/Connector.h"
#include "connector/http/WholeMatch.h"

namespace connector::http {
namespace {

void addFields(HttpResponse& response, const std::string& path,
               const std::vector<HttpResponseHeaderServiceProvider::Rule>& rules)
{
    for (const auto& [expression, fields] : rules) {
        if (!matchesWhole(path, expression))
            continue;
        std::set<std::string> taken;
        for (const auto& [name, value] : fields)
            if (response.headers.count(name) > 0)
                taken.insert(name);
        for (const auto& [name, value] : fields)
            if (!taken.contains(name))
                response.headers.add(name, value);
    }
}

} // namespace

HttpResponseHeaderServiceProvider::HttpResponseHeaderServiceProvider(std::vector<Rule>&& rules)
    : rules_(std::make_shared<const Rules>(std::move(rules)))
{}

std::vector<HttpResponseHeaderServiceProvider::Rule> HttpResponseHeaderServiceProvider::defaultHeaderRules()
{
    return {
        {boost::regex(".*[.-][0-9a-f]{8,}\\.(?:m?js|css|woff2?|png|svg|webp|wasm)"),
         {{"Cache-Control", "private, max-age=31536000, immutable"}}},
        {boost::regex(".*"),
         {{"Cache-Control", "private, no-cache"},
          {"Content-Security-Policy",
           "default-src 'self'; object-src 'none'; base-uri 'self'; form-action 'self'; frame-ancestors 'none'"},
          {"Cross-Origin-Opener-Policy", "same-origin"},
          {"Cross-Origin-Resource-Policy", "same-origin"},
          {"Referrer-Policy", "no-referrer"},
          {"X-Content-Type-Options", "nosniff"}}},
    };
}

MessageFuture HttpResponseHeaderServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                                                            std::shared_ptr<Context>&& context)
{
    const auto connector = context->connector();
    std::string path = request->path;
    return connector->handle(std::move(request), std::move(rest), std::move(context))
        .then([rules = rules_, path = std::move(path)](MessageFuture answer) {
            auto message = answer.get();
            if (auto* response = dynamic_cast<HttpResponse*>(message.get()))
                addFields(*response, path, *rules);
            return message;
        });
}

} // namespace connector::http
