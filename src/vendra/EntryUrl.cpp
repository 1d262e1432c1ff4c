#include "vendra/EntryUrl.h"

#include <memory>
#include <stdexcept>
#include <string_view>
#include <strings.h>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/URI.h>

namespace vendra {
namespace {

const Poco::Timespan kPatience(5, 0);
constexpr std::size_t kMostAnswerBytes = 65'536;
constexpr const char* kHexadecimal = "0123456789abcdef";

std::string hexadecimal(const unsigned char* bytes, unsigned count)
{
    std::string text;
    for (unsigned i = 0; i < count; ++i)
        text += {kHexadecimal[bytes[i] >> 4], kHexadecimal[bytes[i] & 15]};
    return text;
}

/// A connection whose far end showed the certificate with this fingerprint. No authority signs it: the fingerprint
/// comes from the user's own file.
Poco::Net::StreamSocket connectSecurely(const Poco::Net::SocketAddress& address, const std::string& fingerprint)
{
    if (fingerprint.size() != 64)
        throw std::runtime_error("the host announces no certificate");
    Poco::Net::Context::Params parameters;
    parameters.verificationMode = Poco::Net::Context::VERIFY_NONE;
    parameters.loadDefaultCAs = false;
    Poco::Net::Context::Ptr context = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, parameters);
    context->requireMinimumProtocol(Poco::Net::Context::PROTO_TLSV1_2);
    context->enableExtendedCertificateVerification(false);
    Poco::Net::SecureStreamSocket socket(context);
    socket.connect(address, kPatience);
    socket.setReceiveTimeout(kPatience);
    socket.setSendTimeout(kPatience);
    socket.completeHandshake();

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    const X509* certificate = socket.havePeerCertificate() ? socket.peerCertificate().certificate() : nullptr;
    if (!certificate || X509_digest(certificate, EVP_sha256(), digest, &size) != 1 ||
        ::strcasecmp(hexadecimal(digest, size).c_str(), fingerprint.c_str()) != 0)
        throw std::runtime_error("the server at " + address.toString() + " is not the host that announced itself");
    return socket;
}

Poco::Net::StreamSocket connectPlainly(const Poco::Net::SocketAddress& address)
{
    Poco::Net::StreamSocket socket;
    socket.connect(address, kPatience);
    socket.setReceiveTimeout(kPatience);
    socket.setSendTimeout(kPatience);
    return socket;
}

std::string readAnswer(std::istream& stream)
{
    std::string text(kMostAnswerBytes, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    return text;
}

/// What stands in `url` between `before` and `after`, if it is hexadecimal; an empty text otherwise.
std::string_view hexadecimalBetween(std::string_view url, std::string_view before, std::string_view after)
{
    if (!url.starts_with(before))
        return {};
    url.remove_prefix(before.size());
    const auto end = after.empty() ? url.size() : url.find(after);
    if (end == std::string_view::npos || url.substr(0, end).find_first_not_of(kHexadecimal) != std::string_view::npos)
        return {};
    return url.substr(0, end);
}

/// Nothing but the announced address, or the name that the host has for browsers with the announced port, and a nonce.
bool isEntryUrl(const Announcement& host, std::string_view url)
{
    const Poco::URI announced(host.url);
    const std::string before = announced.getScheme() + "://vendra-";
    const std::string after = ".localhost:" + std::to_string(announced.getPort()) + "/";
    std::string base = host.url;
    if (const auto name = hexadecimalBetween(url, before, after); name.size() == 32)
        base = before + std::string(name) + after;
    return !hexadecimalBetween(url, base + "?nonce=", "").empty();
}

std::string askFor(const Announcement& host)
{
    const Poco::URI uri(host.url);
    const std::string& scheme = uri.getScheme();
    if ((scheme != "http" && scheme != "https") || uri.getHost().empty())
        throw std::runtime_error("the announced address " + host.url + " is none");
    if (host.token.empty())
        throw std::runtime_error("the host keeps its token to itself");

    const Poco::Net::SocketAddress address(uri.getHost(), uri.getPort());
    Poco::Net::HTTPClientSession session(scheme == "https" ? connectSecurely(address, host.fingerprint)
                                                           : connectPlainly(address));
    session.setTimeout(kPatience);
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, "/messageservice/nonce",
                                   Poco::Net::HTTPMessage::HTTP_1_1);
    request.set("Host", uri.getAuthority());
    request.set("Authorization", "Bearer " + host.token);
    request.set("Accept", "application/json");
    request.setContentLength(0);
    session.sendRequest(request).flush();
    Poco::Net::HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    if (response.getStatus() != Poco::Net::HTTPResponse::HTTP_OK)
        throw std::runtime_error("the host answered with " + std::to_string(response.getStatus()));
    return Poco::JSON::Parser()
        .parse(readAnswer(body))
        .extract<Poco::JSON::Object::Ptr>()
        ->getValue<std::string>("url");
}

} // namespace

std::string fetchEntryUrl(const Announcement& host)
{
    std::string url;
    try {
        url = askFor(host);
    } catch (const Poco::Exception& error) {
        throw std::runtime_error("the host at " + host.url + " cannot be asked: " + error.displayText());
    }
    if (!isEntryUrl(host, url)) // it goes to a terminal and to a browser
        throw std::runtime_error("the host at " + host.url + " answered with something else than an address");
    return url;
}

} // namespace vendra
