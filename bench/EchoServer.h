#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

/// The least that a server with an interpreter thread can do: an I/O thread that reads a request, hands it to a worker
/// thread, gets it back and answers with a fixed body. The hand-overs are those of the real server: an eventfd that the
/// other thread polls, awake for a while after there was something. One connection at a time.
class EchoServer
{
public:
    explicit EchoServer(std::string body);
    ~EchoServer();
    std::uint16_t port() const noexcept { return port_; }

private:
    void serve();
    void work();

    const std::string answer_;
    int listener_ = -1;
    int toWorker_ = -1;
    int toServer_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> ended_{false};
    std::thread server_;
    std::thread worker_;
};
