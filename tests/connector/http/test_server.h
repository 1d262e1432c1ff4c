#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Net/Context.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

namespace connector::http::test {

/// A certificate that signed itself, and its key, in a file that serves as both a server's and a client's.
class Certificate
{
public:
    /// `names` as in the certificate: "DNS:localhost,IP:127.0.0.1".
    Certificate(const std::string& folder, const std::string& names, bool expired = false);
    const std::string& path() const { return path_; }
    Poco::Net::Context::Ptr serverContext() const;

private:
    std::string path_;
};

/// A server on this machine that says literally what a test wants it to, over TLS when there is a context. Each
/// connection has a thread; all are closed and joined in the end.
class TestServer
{
public:
    class Peer
    {
    public:
        Peer(Poco::Net::StreamSocket& socket, std::atomic<bool>& gone) : socket_(socket), gone_(gone) {}
        /// False when the client is gone.
        bool send(const std::string& bytes);
        /// Ends the connection below TLS.
        void cut();
        /// Waits for the client to go.
        void waitForEnd();
        /// Passes bytes on in both directions until one side ends.
        void joinWith(std::uint16_t port);

    private:
        Poco::Net::StreamSocket& socket_;
        std::atomic<bool>& gone_;
    };
    /// Called with a request, head and body, or what a TLS client begins with; the connection is closed when it
    /// returns.
    using Handler = std::function<void(Peer&, const std::string& request)>;

    explicit TestServer(Handler handler, Poco::Net::Context::Ptr tls = nullptr);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    std::uint16_t port() const { return port_; }
    std::string url(const std::string& path = "/") const;
    std::vector<std::string> requests() const;
    std::size_t connections() const { return accepted_; }
    std::size_t open() const { return open_; }

private:
    void accept();
    void serve(Poco::Net::StreamSocket socket);

    const Handler handler_;
    const Poco::Net::Context::Ptr tls_;
    Poco::Net::ServerSocket listener_;
    const std::uint16_t port_;
    std::atomic<bool> stopping_{false};
    std::atomic<std::size_t> accepted_{0};
    std::atomic<std::size_t> open_{0};
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

/// A whole answer with this status, header lines ("A: b\r\n") and body.
std::string answer(unsigned status, const std::string& fields = "", const std::string& body = "");

} // namespace connector::http::test
