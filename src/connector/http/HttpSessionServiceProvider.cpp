#include "connector/http/HttpSessionServiceProvider.h"

#include "connector/core/Connector.h"
#include "connector/http/Cookies.h"
#include "connector/http/HttpConfiguration.h"
#include "connector/http/HttpText.h"
#include "connector/http/WebSocket.h"

namespace connector::http {

namespace {

bool hasBearerToken(const HttpRequest& request)
{
    const std::string* authorization = request.headers.find("Authorization");
    return authorization && equalsIgnoringCase(std::string_view(*authorization).substr(0, 7), "Bearer ");
}

/// A request for a file is none of a conversation, and the guard lets it in for less.
bool asksForFile(const HttpRequest& request)
{
    return (request.method == "GET" || request.method == "HEAD") && !asksForWebSocket(request);
}

std::string cookieName(const HttpRequest& request)
{
    return cookieNameOfPort(HttpSessionServiceProvider::kCookieName, request.localPort);
}

std::string cookieText(const HttpRequest& request, const std::string& secret)
{
    return cookieName(request) + "=" + secret + "; Path=/; HttpOnly; SameSite=Strict" +
           (request.secure ? "; Secure" : "");
}

} // namespace

MessageFuture HttpSessionServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                                                     std::shared_ptr<Context>&& context)
{
    const auto connector = context->connector();
    readLimits(*connector);

    if (auto session = findSession(*request)) {
        context->setHttpSession(std::move(session));
        return connector->handle(std::move(request), std::move(rest), std::move(context));
    }
    auto created = hasBearerToken(*request) || asksForFile(*request) ? std::nullopt : sessions_->create();
    if (!created)
        return connector->handle(std::move(request), std::move(rest), std::move(context));

    context->setHttpSession(created->session);
    const std::string cookie = cookieText(*request, created->secret);
    return connector->handle(std::move(request), std::move(rest), std::move(context))
        .then([sessions = sessions_, id = created->session->id(), cookie](MessageFuture settled) {
            try {
                std::unique_ptr<Message> answer = settled.get();
                auto* response = dynamic_cast<HttpResponse*>(answer.get());
                if (response && response->status < 400)
                    response->headers.add("Set-Cookie", cookie);
                else
                    sessions->end(id);
                return answer;
            } catch (...) {
                sessions->end(id);
                throw;
            }
        });
}

std::shared_ptr<HttpSession> HttpSessionServiceProvider::findSession(const HttpRequest& request) const
{
    for (const auto secret : cookieValues(request.headers, cookieName(request))) {
        if (auto session = sessions_->find(std::string(secret)))
            return session;
    }
    return nullptr;
}

/// With the first request: the configuration need not have been there earlier.
void HttpSessionServiceProvider::readLimits(Connector& connector)
{
    if (limitsRead_.exchange(true))
        return;
    const SessionLimits limits = readSessionLimits(connector);
    sessions_->setLimits(limits.idle, limits.maxSessions);
}

} // namespace connector::http
