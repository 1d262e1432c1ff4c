#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"
#include "connector/security/AccessGrants.h"
#include "connector/security/NonceService.h"

namespace connector::security::v1 {

/// What pages prove themselves with: a key that the scripts of one origin, port included, hold in their storage and
/// send in a header. A browser gives neither to another port, as it does with cookies. Two things lead to a key and on
/// from it, each good for one use and a minute:
///   a code     in the fragment of the address that a browser is led to when it enters; worth a key
///   a ticket   in a query, for a request to which no script can add a header: a WebSocket, a navigation
/// All are bound to the port. Threads: any.
class CONNECTOR_API PageAccess
{
public:
    static constexpr const char* kKeyField = "Vendra-Page";
    static constexpr const char* kCodeField = "Vendra-Entry";
    static constexpr std::string_view kTicketParameter = "ticket";
    /// POST with a code: {"key": …}.
    static constexpr std::string_view kEntryPath = "/messageservice/entry";
    /// POST by whoever is in: {"ticket": …, "expiresInSeconds": …}.
    static constexpr std::string_view kTicketPath = "/messageservice/ticket";

    /// As AccessGrants; `nonces` makes codes and tickets.
    PageAccess(std::shared_ptr<NonceService> nonces, std::size_t most, std::chrono::milliseconds idle);

    /// Throws as NonceService::issue.
    std::string makeCode(std::uint16_t port);
    /// Whether the request brings a key, whose idle time starts anew.
    bool holdsKey(const http::HttpRequest& request);
    /// Uses up the ticket of the request's query; false when it has none that is good.
    bool redeemTicket(const http::HttpRequest& request);
    /// Answers a request to kEntryPath; null when it brings no code that is good.
    std::unique_ptr<http::HttpResponse> claim(const http::HttpRequest& request);
    /// Answers a request to kTicketPath of somebody who is in; 503 when too many nonces are out.
    std::unique_ptr<http::HttpResponse> giveTicket(const http::HttpRequest& request);

private:
    const std::shared_ptr<NonceService> nonces_;
    AccessGrants keys_;
};

} // namespace connector::security::v1
