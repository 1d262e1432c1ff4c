#include "connector/http/test_server.h"

#include <cstdio>
#include <stdexcept>

#include <Poco/Net/NetException.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace connector::http::test {

namespace {

using Poco::Net::Context;
using Poco::Net::Socket;
using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;

const Poco::Timespan kBlink(0, 20'000);

template <class T, void (*Free)(T*)>
struct Freed
{
    void operator()(T* object) const { Free(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Freed<X509, X509_free>>;

/// The request's head and as much body as it says, none with the field X-Unread; a TLS greeting as it comes;
/// empty when the client went before.
std::string receiveRequest(StreamSocket& socket)
{
    std::string bytes;
    std::size_t wanted = std::string::npos;
    char chunk[65536];
    while (bytes.size() < wanted) {
        const int count = socket.receiveBytes(chunk, sizeof chunk);
        if (count <= 0)
            return {};
        bytes.append(chunk, static_cast<std::size_t>(count));
        if (bytes.front() == '\x16')
            return bytes;
        const auto head = bytes.find("\r\n\r\n");
        if (wanted == std::string::npos && head != std::string::npos) {
            const auto length = bytes.find("Content-Length: ");
            const bool unread = bytes.find("X-Unread: ") < head;
            wanted = head + 4 + (length < head && !unread ? std::stoul(bytes.substr(length + 16)) : 0);
        }
    }
    return bytes;
}

} // namespace

Certificate::Certificate(const std::string& folder, const std::string& names, bool expired)
    : path_(folder + "/" + std::to_string(std::hash<std::string>()(names + (expired ? "x" : ""))) + ".pem")
{
    const Key key(EVP_EC_gen("P-256"));
    const X509Ptr certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -7'200);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), expired ? -3'600 : 3'600);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names.c_str());
    X509_add_ext(certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
    X509_sign(certificate.get(), key.get(), EVP_sha256());
    std::FILE* file = std::fopen(path_.c_str(), "w");
    if (!file)
        throw std::runtime_error("Cannot write " + path_);
    PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    PEM_write_X509(file, certificate.get());
    std::fclose(file);
}

Context::Ptr Certificate::serverContext() const
{
    return new Context(Context::TLS_SERVER_USE, path_, path_, "", Context::VERIFY_NONE);
}

bool TestServer::Peer::send(const std::string& bytes)
{
    try {
        for (std::size_t sent = 0; sent < bytes.size();) {
            if (gone_)
                return false;
            if (!socket_.poll(kBlink, Socket::SELECT_WRITE))
                continue;
            const auto left = std::min<std::size_t>(bytes.size() - sent, 16'384);
            sent +=
                static_cast<std::size_t>(socket_.sendBytes(bytes.data() + sent, static_cast<int>(left), MSG_NOSIGNAL));
        }
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

void TestServer::Peer::cut() { ::shutdown(socket_.impl()->sockfd(), SHUT_RDWR); }

void TestServer::Peer::waitForEnd()
{
    try {
        char byte = 0;
        while (!gone_ && (!socket_.poll(kBlink, Socket::SELECT_READ) || socket_.receiveBytes(&byte, 1) > 0)) {
        }
    } catch (const Poco::Exception&) {
        // reset: gone as well
    }
}

void TestServer::Peer::joinWith(std::uint16_t port)
{
    try {
        StreamSocket other(SocketAddress("127.0.0.1", port));
        std::vector<char> buffer(65'536);
        while (!gone_) {
            Socket::SocketList readable{socket_, other};
            Socket::SocketList none;
            Socket::SocketList failed;
            Socket::select(readable, none, failed, kBlink);
            for (auto& ready : readable) {
                StreamSocket from(ready);
                StreamSocket to(ready == socket_ ? other : socket_);
                const int count = from.receiveBytes(buffer.data(), static_cast<int>(buffer.size()));
                if (count <= 0)
                    return;
                to.sendBytes(buffer.data(), count);
            }
        }
    } catch (const Poco::Exception&) {
        // one side went
    }
}

TestServer::TestServer(Handler handler, Context::Ptr tls)
    : handler_(std::move(handler)), tls_(tls), listener_(SocketAddress("127.0.0.1", 0)),
      port_(listener_.address().port()), acceptor_([this] { accept(); })
{}

TestServer::~TestServer()
{
    stopping_ = true;
    acceptor_.join();
    for (auto& thread : threads_)
        thread.join();
}

std::string TestServer::url(const std::string& path) const
{
    return std::string(tls_.isNull() ? "http" : "https") + "://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> TestServer::requests() const
{
    std::lock_guard lock(mutex_);
    return requests_;
}

void TestServer::accept()
{
    while (!stopping_) {
        if (!listener_.poll(kBlink, Socket::SELECT_READ))
            continue;
        StreamSocket socket = listener_.acceptConnection();
        ++accepted_;
        ++open_;
        threads_.emplace_back([this, socket] {
            try {
                serve(socket);
            } catch (const Poco::Exception&) {
                // The client did not like what it saw.
            }
            --open_;
        });
    }
}

void TestServer::serve(StreamSocket socket)
{
    socket.setReceiveTimeout(Poco::Timespan(10, 0));
    if (!tls_.isNull())
        socket = Poco::Net::SecureStreamSocket::attach(socket, tls_);
    const std::string request = receiveRequest(socket);
    if (request.empty())
        return;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
    }
    Peer peer(socket, stopping_);
    handler_(peer, request);
    socket.close();
}

std::string answer(unsigned status, const std::string& fields, const std::string& body)
{
    return "HTTP/1.1 " + std::to_string(status) + " Fine\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           fields + "\r\n" + body;
}

} // namespace connector::http::test
