#include "connector/http/client/TlsClient.h"

#include <stdexcept>

#include <Poco/Exception.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace connector::http::client {

namespace {

// A handshake runs on one thread from end to end; the library offers no other way to what its verification found.
thread_local int verifyError = X509_V_OK;

int keepError(int trusted, X509_STORE_CTX* store)
{
    if (!trusted)
        verifyError = X509_STORE_CTX_get_error(store);
    return trusted;
}

} // namespace

Poco::Net::Context::Ptr TlsClient::context()
{
    std::lock_guard lock(mutex_);
    if (context_)
        return context_;
    try {
        Poco::Net::Context::Params params;
        params.verificationMode = Poco::Net::Context::VERIFY_STRICT;
        params.loadDefaultCAs = true;
        params.cipherList = "DEFAULT";
        Poco::Net::Context::Ptr made(new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params));
        made->requireMinimumProtocol(Poco::Net::Context::PROTO_TLSV1_2);
        made->enableSessionCache(false);
        // The connection compares the host itself, for a text that says what is wrong.
        made->enableExtendedCertificateVerification(false);
        // Poco's own callback asks handlers that any code of the process may have installed for all contexts.
        SSL_CTX_set_verify(made->sslContext(), SSL_VERIFY_PEER, keepError);
        context_ = made;
    } catch (const Poco::Exception& error) {
        throw std::runtime_error("Cannot prepare TLS: " + error.displayText());
    }
    // A store with entries that cannot be read leaves errors behind that a connection would take for its own.
    ERR_clear_error();
    return context_;
}

std::string TlsClient::distrust() { return verifyError == X509_V_OK ? "" : X509_verify_cert_error_string(verifyError); }

void TlsClient::forgetDistrust() noexcept { verifyError = X509_V_OK; }

bool TlsClient::names(const X509* certificate, const Url& url)
{
    const std::string host = url.bareHost();
    auto* subject = const_cast<X509*>(certificate);
    if (url.isAddress())
        return X509_check_ip_asc(subject, host.c_str(), 0) == 1;
    return X509_check_host(subject, host.data(), host.size(), X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr) == 1;
}

} // namespace connector::http::client
