#include "connector/http/client/Sockets.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/X509Certificate.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include "connector/http/client/TlsClient.h"

namespace connector::http::client {

namespace {

std::string broken(const std::string& peer, const std::string& why)
{
    return "The connection to " + peer + " broke: " + why;
}

} // namespace

PlainSocket::PlainSocket(int descriptor, Waiter& waiter, std::string peer)
    : StreamSocketImpl(descriptor), waiter_(waiter), peer_(std::move(peer))
{
    setBlocking(false);
}

PlainSocket::~PlainSocket() = default;

int PlainSocket::sendBytes(const void* buffer, int length, int)
{
    const char* const bytes = static_cast<const char*>(buffer);
    for (int sent = 0; sent < length;) {
        const auto count = ::send(sockfd(), bytes + sent, static_cast<std::size_t>(length - sent), MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<int>(count);
        else if (errno == EAGAIN)
            waiter_.await(sockfd(), POLLOUT);
        else if (errno != EINTR)
            // Not kept as the transfer's failure: the server may have answered before it closed.
            throw std::runtime_error(broken(peer_, std::generic_category().message(errno)));
    }
    return length;
}

int PlainSocket::receiveBytes(void* buffer, int length, int)
{
    for (;;) {
        const auto count = ::recv(sockfd(), buffer, static_cast<std::size_t>(length), 0);
        if (count >= 0) {
            waiter_.check(); // a server that never pauses does not make us wait, either
            return static_cast<int>(count);
        }
        if (errno == EAGAIN)
            waiter_.await(sockfd(), POLLIN);
        else if (errno != EINTR)
            waiter_.fail(broken(peer_, std::generic_category().message(errno)));
    }
}

TlsSocket::TlsSocket(PlainSocket* socket, Poco::Net::Context::Ptr context, Waiter& waiter, const Url& url)
    : SecureStreamSocketImpl(socket, std::move(context)), waiter_(waiter), url_(url)
{
    // The name goes to the server in the clear, to choose its certificate by; addresses are not to be sent.
    if (!url.isAddress())
        setPeerHostName(url.host);
}

TlsSocket::~TlsSocket() = default;

/// Calls the non-blocking `step` until it gets somewhere.
template <class Step>
int TlsSocket::repeat(Step step)
{
    for (;;) {
        waiter_.check();
        ERR_clear_error();
        const int count = step();
        if (count >= 0)
            return count;
        waiter_.await(sockfd(), count == Poco::Net::SecureStreamSocket::ERR_SSL_WANT_WRITE ? POLLOUT : POLLIN);
    }
}

void TlsSocket::shakeHands()
{
    const std::string peer = url_.endpoint();
    waiter_.doing("in the TLS handshake with " + peer);
    TlsClient::forgetDistrust();
    try {
        connectSSL();
        if (repeat([this] { return completeHandshake(); }) == 0)
            waiter_.fail("No TLS with " + peer + ": the server closed the connection");
        if (!TlsClient::names(peerCertificate().certificate(), url_))
            waiter_.fail("The certificate of " + peer + " is for another host.");
    } catch (const Poco::Exception& error) {
        if (const std::string why = TlsClient::distrust(); !why.empty())
            waiter_.fail("The certificate of " + peer + " cannot be verified: " + why);
        waiter_.fail("No TLS with " + peer + ": " + error.displayText());
    }
}

int TlsSocket::sendBytes(const void* buffer, int length, int flags)
{
    try {
        const char* const bytes = static_cast<const char*>(buffer);
        for (int sent = 0; sent < length;) {
            const int count =
                repeat([&] { return SecureStreamSocketImpl::sendBytes(bytes + sent, length - sent, flags); });
            if (count == 0)
                throw std::runtime_error(broken(url_.endpoint(), "the server closed it"));
            sent += count;
        }
        return length;
    } catch (const Poco::Exception& error) {
        throw std::runtime_error(broken(url_.endpoint(), error.displayText()));
    }
}

int TlsSocket::receiveBytes(void* buffer, int length, int flags)
{
    try {
        return repeat([&] { return SecureStreamSocketImpl::receiveBytes(buffer, length, flags); });
    } catch (const Poco::Exception& error) {
        // An end that TLS does not announce counts as broken: somebody in between may have cut the answer off.
        waiter_.fail(broken(url_.endpoint(), error.displayText()));
    }
}

} // namespace connector::http::client
