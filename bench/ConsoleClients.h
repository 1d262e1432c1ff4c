#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "HttpClient.h"
#include "WebSocketClient.h"

/// Where a server is, and which of them.
struct Server
{
    std::string dialect; ///< ours, floor or notebook
    std::uint16_t port = 0;
    std::string token;
    std::string kernel; ///< of a notebook server
};

/// What has come of an evaluation so far.
struct Evaluation
{
    bool ended = false;
    std::string value; ///< as the server prints it; empty when there was none
    std::string error;
    std::size_t lines = 0; ///< of output
};

/// A client with a WebSocket of its own, one evaluation at a time; blocking, for one thread. Functions throw
/// std::runtime_error for what the server refuses.
class ConsoleClient
{
public:
    virtual ~ConsoleClient() = default;

    /// Asks for the value of some code.
    virtual void evaluate(const std::string& code) = 0;

    /// Has code run; its output comes while it runs.
    virtual void run(const std::string& code) = 0;

    /// How many candidates there are at the end of some code. Waits for the answer.
    virtual std::size_t complete(const std::string& code) = 0;

    /// Breaks what runs. By HTTP, over a connection that stays open.
    virtual void interrupt() = 0;

    /// Handles what was read; true when the evaluation has ended.
    bool advance(Evaluation& evaluation);

    /// Reads until the evaluation has ended.
    void finish(Evaluation& evaluation);

    void read() { socket_.read(); }
    void acknowledgeAtOnce() { socket_.acknowledgeAtOnce(); }
    int socket() const { return socket_.socket(); }

protected:
    ConsoleClient(const Server& server, const std::string& path, const std::string& token);

    virtual void take(const std::string& message, Evaluation& evaluation) = 0;

    /// The next message, waited for.
    std::string receive();
    HttpClient& http();

    const Server server_;
    WebSocketClient socket_;

private:
    std::unique_ptr<HttpClient> http_;
};

std::unique_ptr<ConsoleClient> makeClient(const Server& server);

/// The bytes of a request whose answer is the value of some code, without a WebSocket; empty if the server has none.
std::string statelessRequest(const Server& server, const std::string& code);
