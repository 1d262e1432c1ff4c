#pragma once

#include <mutex>
#include <string>

#include <Poco/Net/Context.h>

#include "connector/http/client/Url.h"

namespace connector::http::client {

/// How servers are checked: TLS 1.2 or later, certificates against the store of the system (or SSL_CERT_FILE and
/// SSL_CERT_DIR), and for the host asked. Nothing of it is shared with other users of the libraries. Threads: any.
class TlsClient
{
public:
    /// Made when it is first needed; the store is read once. Throws std::runtime_error.
    Poco::Net::Context::Ptr context();

    /// Why the last handshake on this thread did not trust the certificate; "" when that was not the reason.
    static std::string distrust();
    static void forgetDistrust() noexcept;

    /// Whether a certificate is for the URL's host, by its alternative names alone where it has any.
    static bool names(const X509* certificate, const Url& url);

private:
    std::mutex mutex_;
    Poco::Net::Context::Ptr context_;
};

} // namespace connector::http::client
