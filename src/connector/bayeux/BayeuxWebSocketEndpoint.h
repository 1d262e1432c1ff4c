#pragma once

#include <list>
#include <mutex>

#include "connector/bayeux/BayeuxMessages.h"
#include "connector/core/Context.h"
#include "connector/http/WebSocket.h"

namespace connector::bayeux {

/// One open WebSocket of the bus. Sends each text message as a BayeuxRequest to the service, one at a time and in
/// order, and after the last one that the socket closed. Replies go out through the sink, which the service may keep.
///
/// Closes the socket: with 1003 for a binary message; 1008 when more wait than kMaxWaiting or maxWaitingBytes; 1007,
/// 1009 and 1013 for requests that are no JSON, are too large, and come while nobody serves. Other failures are told
/// within the protocol.
class BayeuxWebSocketEndpoint final : public http::WebSocketEndpoint,
                                      public std::enable_shared_from_this<BayeuxWebSocketEndpoint>
{
public:
    static constexpr std::size_t kMaxWaiting = 1'000;
    /// What may wait on one socket whose messages have at most so many bytes.
    static constexpr std::size_t maxWaitingBytes(std::size_t messageBytes) { return 4 * messageBytes; }

    /// `context`: the socket's own. Its token fires when the socket closes. `maxMessageBytes`: of what is received.
    BayeuxWebSocketEndpoint(Address service, std::shared_ptr<Context> context, std::string peerAddress,
                            std::size_t maxMessageBytes);

    void opened(std::shared_ptr<http::WebSocketConnection> connection) override;
    void received(std::string message, bool binary) override;
    void closed(std::uint16_t code, const std::string& reason) override;

private:
    MessageFuture send(std::unique_ptr<Message> message) const noexcept;
    using Text = std::shared_ptr<const std::string>;

    MessageFuture ask(const Text& text) const noexcept;
    void refuse(std::uint16_t code, const std::string& reason);
    void work(Text request);
    Text next();
    void reply(MessageFuture& settled, const std::string& request);
    void tell(std::string replies) const;

    const Address service_;
    const std::shared_ptr<Context> context_;
    const std::string peerAddress_;
    const std::size_t maxWaitingBytes_;
    std::shared_ptr<http::WebSocketConnection> connection_;
    std::shared_ptr<BayeuxChannelSink> sink_;

    std::mutex mutex_;
    // A list takes nothing while it is empty, as it is in most of ten thousand clients.
    std::list<Text> waiting_;
    std::size_t waitingBytes_ = 0;
    bool working_ = false; ///< somebody is in `work`, or will be when an answer comes
    bool refused_ = false; ///< nothing more is taken
    bool closed_ = false;
};

} // namespace connector::bayeux
