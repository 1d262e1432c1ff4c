#include "connector/http/engine/TlsContext.h"

#include <stdexcept>
#include <string_view>

#include <openssl/ssl.h>

namespace connector::http::engine {

namespace {

namespace ssl = boost::asio::ssl;

void check(const boost::system::error_code& error, const std::filesystem::path& file, const char* what)
{
    if (error)
        throw std::runtime_error(std::string("TLS: ") + file.string() + " cannot be used as " + what + ": " +
                                 error.message());
}

/// Chooses HTTP/1.1 where the client names protocols (RFC 7301); one that names only others is turned away.
int chooseProtocol(SSL*, const unsigned char** chosen, unsigned char* length, const unsigned char* offered,
                   unsigned offeredLength, void*)
{
    static constexpr unsigned char kOurs[] = "\x08http/1.1";
    unsigned char* match = nullptr;
    if (SSL_select_next_proto(&match, length, kOurs, sizeof(kOurs) - 1, offered, offeredLength) !=
        OPENSSL_NPN_NEGOTIATED)
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    *chosen = match;
    return SSL_TLSEXT_ERR_OK;
}

} // namespace

std::unique_ptr<ssl::context> makeTlsContext(const TlsFiles& files)
{
    auto context = std::make_unique<ssl::context>(ssl::context::tls_server);
    boost::system::error_code error;
    context->use_certificate_chain_file(files.certificate.string(), error);
    check(error, files.certificate, "a certificate");
    context->use_private_key_file(files.key.string(), ssl::context::pem, error);
    check(error, files.key, "a private key");

    SSL_CTX* native = context->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_options(native, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                    SSL_OP_NO_TICKET | SSL_OP_SINGLE_ECDH_USE);
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    if (SSL_CTX_set_cipher_list(native, "ECDHE+AESGCM:ECDHE+CHACHA20") != 1 ||
        SSL_CTX_set1_groups_list(native, "X25519:P-256:P-384") != 1)
        throw std::runtime_error("TLS: the system's library lacks the ciphers that are needed");
    SSL_CTX_set_alpn_select_cb(native, chooseProtocol, nullptr);
    return context;
}

} // namespace connector::http::engine
