#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// One WebSocket to a port of this machine; blocking, for one thread. Every function but `socket` and `next` throws
/// std::runtime_error when the server refuses, closes, or says nothing for a minute.
class WebSocketClient
{
public:
    /// `token` is sent as a bearer token unless it is empty.
    WebSocketClient(std::uint16_t port, const std::string& path, const std::string& token);
    ~WebSocketClient();
    WebSocketClient(const WebSocketClient&) = delete;
    WebSocketClient& operator=(const WebSocketClient&) = delete;

    int socket() const { return socket_; }

    void send(std::string_view text);

    /// From now on the kernel does not wait for something to send along with its acknowledgements. A server that holds
    /// back a small packet until the one before is acknowledged is then not held up by that wait.
    void acknowledgeAtOnce();

    /// Reads once, and waits for it.
    void read();

    /// The next whole message that has been read; false when there is none.
    bool next(std::string& message);

private:
    struct Frame;
    bool nextFrame(Frame& frame);
    void write(std::string_view bytes);
    void sendFrame(unsigned opcode, std::string_view payload);

    int socket_ = -1;
    bool atOnce_ = false;
    std::string buffer_;
    std::size_t used_ = 0;
    std::string parts_; ///< of a message in several frames
};
