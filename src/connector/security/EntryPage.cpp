#include "connector/security/EntryPage.h"

#include <sstream>

#include <Poco/Base64Encoder.h>

#include "connector/common/Secret.h"
#include "connector/http/HttpText.h"

namespace connector::security::v1 {
namespace {

/// A browser whose cookie is gone, or is not enough for what it asks for, may still hold the key of the page: then it
/// goes on with a ticket. content/docroot/access.js keeps the key under the same name.
constexpr const char* kScript = R"((async () => {
  const post = async (path, field, secret) => {
    const answer = await fetch(path, {method: "POST", headers: {[field]: secret}});
    return answer.ok ? answer.json() : {};
  };
  const address = new URL(location.href);
  const code = /^#entry=([0-9a-f]{64})$/.exec(address.hash)?.[1];
  if (code) {
    address.hash = "";
    history.replaceState(null, "", address);
    const {key} = await post("/messageservice/entry", "Vendra-Entry", code);
    if (key)
      localStorage.setItem("vendra.key", key);
  }
  const key = localStorage.getItem("vendra.key");
  const {ticket} = key ? await post("/messageservice/ticket", "Vendra-Page", key) : {};
  if (ticket) {
    address.searchParams.set("ticket", ticket);
    location.replace(address);
  }
})();)";

std::string scriptHash()
{
    std::ostringstream text;
    Poco::Base64Encoder encoder(text);
    encoder << common::sha256(kScript);
    encoder.close();
    return text.str();
}

std::unique_ptr<http::HttpResponse> page()
{
    static const std::string policy = "default-src 'none'; script-src 'sha256-" + scriptHash() +
                                      "'; connect-src 'self'; base-uri 'none'; form-action 'none'; "
                                      "frame-ancestors 'none'";
    auto answer = std::make_unique<http::HttpResponse>(
        401, "text/html; charset=utf-8",
        "<!doctype html>\n<html lang=\"en\">\n<meta charset=\"utf-8\">\n<title>Not let in</title>\n<p>" +
            std::string(kHowToGetIn) + "</p>\n<script>" + kScript + "</script>\n</html>\n");
    answer->headers.set("Content-Security-Policy", policy);
    answer->headers.set("X-Content-Type-Options", "nosniff");
    answer->headers.set("Cache-Control", "no-store");
    answer->headers.set("Referrer-Policy", "no-referrer");
    return answer;
}

} // namespace

bool isShownToSomebody(const http::HttpRequest& request)
{
    return request.method == "GET" && !request.sharedHost && http::listHas(request.headers.get("Accept"), "text/html");
}

std::unique_ptr<http::HttpResponse> unauthorized(const http::HttpRequest& request)
{
    return unauthorized(isShownToSomebody(request), http::prefersJson(request.headers));
}

std::unique_ptr<http::HttpResponse> unauthorized(bool asPage, bool asJson)
{
    auto answer = asPage ? page() : http::refusal(asJson, 401, kHowToGetIn);
    answer->headers.set("WWW-Authenticate", "Bearer");
    return answer;
}

} // namespace connector::security::v1
