#include "connector/security/PageAccess.h"

#include <stdexcept>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"
#include "connector/security/EntryUrl.h"

namespace connector::security::v1 {
namespace {

constexpr std::chrono::seconds kLife(60);

std::string codePurpose(std::uint16_t port) { return "page code " + std::to_string(port); }
std::string ticketPurpose(std::uint16_t port) { return "page ticket " + std::to_string(port); }

/// The secret in the request's one field of this name, else an empty text.
std::string_view secretIn(const http::HttpRequest& request, const char* field)
{
    const std::string* value = request.headers.find(field);
    if (!value || !isSecretText(*value) || request.headers.count(field) != 1)
        return {};
    return *value;
}

std::unique_ptr<http::HttpResponse> answerWith(const Poco::JSON::Object::Ptr& object)
{
    auto answer = std::make_unique<http::HttpResponse>(200, "application/json", json::write(object));
    answer->headers.set("Cache-Control", "no-store");
    return answer;
}

} // namespace

PageAccess::PageAccess(std::shared_ptr<NonceService> nonces, std::size_t most, std::chrono::milliseconds idle)
    : nonces_(std::move(nonces)), keys_(most, idle)
{}

std::string PageAccess::makeCode(std::uint16_t port) { return nonces_->issue(codePurpose(port), kLife); }

bool PageAccess::holdsKey(const http::HttpRequest& request)
{
    const auto key = secretIn(request, kKeyField);
    return !key.empty() && keys_.use(key, request.localPort);
}

bool PageAccess::redeemTicket(const http::HttpRequest& request)
{
    const auto ticket = oneParameter(request.query, kTicketParameter);
    return isSecretText(ticket) && nonces_->redeem(ticket, ticketPurpose(request.localPort));
}

std::unique_ptr<http::HttpResponse> PageAccess::claim(const http::HttpRequest& request)
{
    const auto code = secretIn(request, kCodeField);
    if (code.empty() || !nonces_->redeem(code, codePurpose(request.localPort)))
        return nullptr;
    auto object = json::makeObject();
    object->set("key", keys_.add(request.localPort));
    return answerWith(object);
}

std::unique_ptr<http::HttpResponse> PageAccess::giveTicket(const http::HttpRequest& request)
{
    auto object = json::makeObject();
    try {
        object->set("ticket", nonces_->issue(ticketPurpose(request.localPort), kLife));
    } catch (const std::runtime_error& error) {
        return http::refusal(request, 503, error.what());
    }
    object->set("expiresInSeconds", static_cast<std::int64_t>(kLife.count()));
    return answerWith(object);
}

} // namespace connector::security::v1
