#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/beast/core/role.hpp>

#include "connector/http/engine/Frame.h"
#include "connector/http/engine/Loop.h"
#include "connector/http/engine/SocketTurn.h"
#include "connector/http/engine/Stream.h"

namespace connector::http::engine {

/// The stream below a WebSocket. What the protocol writes (the handshake's answer, control frames) is taken whole, and
/// goes out in turn with messages that were framed once for many receivers. Its loop's thread.
class FrameStream
{
public:
    using executor_type = Stream::executor_type;
    using Error = boost::system::error_code;

    class Owner
    {
    public:
        virtual ~Owner() = default;
        /// Keeps owner and stream alive meanwhile.
        virtual std::shared_ptr<void> ownerPtr() = 0;
        virtual void heard() = 0; ///< from the client
        virtual void messagesSent(std::size_t count, std::size_t payloadBytes) = 0;
        virtual void flushed() = 0;
        virtual void sendingFailed() = 0;
    };

    /// `turn` lives as long as the owner.
    FrameStream(Stream stream, Loop& loop, Owner& owner, SocketTurn& turn)
        : stream_(std::move(stream)), loop_(loop), owner_(owner), turn_(turn)
    {}

    executor_type get_executor() { return stream_.get_executor(); }

    template <class Buffers, class Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler)
    {
        if (surplus_.empty() && moreIsLikely_)
            readAhead();
        if (!surplus_.empty()) {
            const auto count = takeSurplus(buffers);
            loop_.runSoon([taken = std::forward<Handler>(handler), count]() mutable { taken(Error(), count); });
            return;
        }
        const auto room = boost::asio::buffer_size(buffers);
        stream_.async_read_some(buffers, [this, room, taken = std::forward<Handler>(handler)](
                                             const Error& error, std::size_t count) mutable {
            loop_.inTurn([&] {
                moreIsLikely_ = !error && count == room && !isTls();
                if (!error) {
                    loop_.noteInput();
                    owner_.heard();
                }
                taken(error, count);
            });
        });
    }

    template <class Buffers, class Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler)
    {
        std::string bytes(boost::asio::buffers_begin(buffers), boost::asio::buffers_end(buffers));
        if (closeCode_)
            setCloseCode(bytes, *closeCode_);
        const std::size_t count = bytes.size();
        if (!failed_)
            enqueue({Frame(std::move(bytes))});
        boost::asio::post(get_executor(), [taken = std::forward<Handler>(handler), count, broken = failed_]() mutable {
            if (broken)
                taken(Error(boost::asio::error::broken_pipe), 0);
            else
                taken(Error(), count);
        });
        flush();
    }

    /// What a close frame that is written from now on says, whatever the protocol's library takes for the answer.
    void answerCloseWith(std::uint16_t code) noexcept { closeCode_ = code; }

    bool isTls() const noexcept { return stream_.isTls(); }

    /// Nobody else writes to the socket until everything queued has gone out; to be called before what is to be queued
    /// is taken from where others could send it.
    void takeTurn();
    void enqueue(Frames frames);
    std::size_t queued() const noexcept { return queue_.size(); }
    /// Sends what the socket takes.
    void flush();

    /// After everything queued has gone out, or cannot.
    template <class Handler>
    void finish(Handler&& handler)
    {
        turn_.revoke();
        auto end = [this, taken = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler))] {
            stream_.finishSending([this, taken] {
                stream_.close();
                boost::asio::post(get_executor(), [taken] { (*taken)(Error()); });
            });
        };
        if (queue_.empty() || failed_)
            end();
        else
            whenFlushed_ = std::move(end);
    }
    void close();

private:
    template <class Buffers>
    std::size_t takeSurplus(const Buffers& buffers)
    {
        const auto count = boost::asio::buffer_copy(buffers, boost::asio::buffer(surplus_) + surplusTaken_);
        surplusTaken_ += count;
        if (surplusTaken_ == surplus_.size()) {
            surplus_ = {};
            surplusTaken_ = 0;
        }
        return count;
    }
    static void setCloseCode(std::string& frame, std::uint16_t code);
    void readAhead();
    void send();
    void sent(std::size_t count);

    Stream stream_;
    Loop& loop_;
    Owner& owner_;
    SocketTurn& turn_;
    bool hasTurn_ = false;
    // What the reader asks for is little; where it gets all of that, more is read at once.
    bool moreIsLikely_ = false;
    std::string surplus_;
    std::size_t surplusTaken_ = 0;
    Frames queue_;
    std::size_t offset_ = 0; ///< sent of the first frame
    bool waiting_ = false;   ///< for the socket to take more
    bool flushing_ = false;
    bool failed_ = false;
    std::optional<std::uint16_t> closeCode_;
    std::function<void()> whenFlushed_;
};

/// How Beast ends a stream, found by its type.
template <class Handler>
void async_teardown(boost::beast::role_type, FrameStream& stream, Handler&& handler)
{
    stream.finish(std::forward<Handler>(handler));
}
inline void teardown(boost::beast::role_type, FrameStream& stream, boost::system::error_code&) { stream.close(); }
inline void beast_close_socket(FrameStream& stream) { stream.close(); }

} // namespace connector::http::engine
