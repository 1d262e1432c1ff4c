#include "connector/http/HttpServiceProvider.h"

namespace connector::http {

namespace {

std::string allowText(const std::vector<std::string>& methods)
{
    std::string text;
    for (const auto& method : methods) {
        text += method + ", ";
        if (method == "GET")
            text += "HEAD, ";
    }
    return text + "OPTIONS";
}

MessageFuture answerWith(std::unique_ptr<HttpResponse> response)
{
    return makeReadyFuture(std::unique_ptr<Message>(std::move(response)));
}

} // namespace

MessageFuture RestServiceProvider::handleHttp(std::unique_ptr<HttpRequest>&& request, Address&& rest,
                                              std::shared_ptr<Context>&& context)
{
    const auto allowed = methods();
    const std::string method = request->method == "HEAD" ? "GET" : request->method;
    if (method == "OPTIONS") {
        auto response = std::make_unique<HttpResponse>(204);
        response->headers.add("Allow", allowText(allowed));
        return answerWith(std::move(response));
    }
    if (std::find(allowed.begin(), allowed.end(), method) != allowed.end()) {
        if (method == "GET")
            return get(std::move(request), std::move(rest), std::move(context));
        if (method == "POST")
            return post(std::move(request), std::move(rest), std::move(context));
        if (method == "PUT")
            return put(std::move(request), std::move(rest), std::move(context));
        if (method == "DELETE")
            return del(std::move(request), std::move(rest), std::move(context));
    }
    auto response = refusal(*request, 405, "The method " + request->method + " is not allowed here.");
    response->headers.add("Allow", allowText(allowed));
    return answerWith(std::move(response));
}

// A method that a derived class lists without overriding it is the class's own fault.

MessageFuture RestServiceProvider::get(Request&&, Address&&, std::shared_ptr<Context>&&)
{
    return makeFailedFuture<std::unique_ptr<Message>>(std::logic_error("GET is listed but not served."));
}

MessageFuture RestServiceProvider::post(Request&&, Address&&, std::shared_ptr<Context>&&)
{
    return makeFailedFuture<std::unique_ptr<Message>>(std::logic_error("POST is listed but not served."));
}

MessageFuture RestServiceProvider::put(Request&&, Address&&, std::shared_ptr<Context>&&)
{
    return makeFailedFuture<std::unique_ptr<Message>>(std::logic_error("PUT is listed but not served."));
}

MessageFuture RestServiceProvider::del(Request&&, Address&&, std::shared_ptr<Context>&&)
{
    return makeFailedFuture<std::unique_ptr<Message>>(std::logic_error("DELETE is listed but not served."));
}

} // namespace connector::http
