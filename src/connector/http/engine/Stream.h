#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/buffers_iterator.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>

namespace connector::http::engine {

/// A client's socket, TCP or Unix-domain, with or without TLS. Reads and writes are named as Asio's streams are, so
/// that it can be used as one. Its loop's thread.
class Stream
{
public:
    using Socket = boost::asio::generic::stream_protocol::socket;
    using executor_type = Socket::executor_type;
    using Error = boost::system::error_code;

    /// With TLS when there is a context; `handshake` comes first then.
    Stream(Socket socket, boost::asio::ssl::context* tls)
    {
        Error ignored;
        socket.native_non_blocking(true, ignored);
        if (tls)
            tls_ = std::make_unique<Tls>(std::move(socket), *tls);
        else
            plain_ = std::make_unique<Socket>(std::move(socket));
    }

    executor_type get_executor() { return socket().get_executor(); }
    Socket& socket() noexcept { return tls_ ? tls_->next_layer() : *plain_; }
    bool isTls() const noexcept { return tls_ != nullptr; }

    /// To be read again before anything that comes from the socket.
    void putBack(std::string_view bytes) { putBack_.insert(0, bytes); }

    template <class Handler>
    void handshake(Handler&& handler)
    {
        tls_->async_handshake(boost::asio::ssl::stream_base::server, std::forward<Handler>(handler));
    }

    template <class Buffers, class Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler)
    {
        if (!putBack_.empty()) {
            const std::size_t count = boost::asio::buffer_copy(buffers, boost::asio::buffer(putBack_));
            putBack_.erase(0, count);
            boost::asio::post(get_executor(),
                              [taken = std::forward<Handler>(handler), count]() mutable { taken(Error(), count); });
        } else if (tls_) {
            tls_->async_read_some(buffers, std::forward<Handler>(handler));
        } else {
            plain_->async_read_some(buffers, std::forward<Handler>(handler));
        }
    }

    template <class Buffers, class Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler)
    {
        if (tls_)
            tls_->async_write_some(buffers, std::forward<Handler>(handler));
        else
            plain_->async_write_some(buffers, std::forward<Handler>(handler));
    }

    /// Says that nothing more will be sent: TLS's own notice, where there is TLS, then the socket's.
    template <class Handler>
    void finishSending(Handler&& handler)
    {
        if (tls_) {
            tls_->async_shutdown([this, taken = std::forward<Handler>(handler)](const Error&) mutable {
                shutDownSocket();
                taken();
            });
        } else {
            shutDownSocket();
            handler();
        }
    }

    void close()
    {
        Error ignored;
        socket().close(ignored);
    }
    /// The client sees that what it has got is not all.
    void reset()
    {
        Error ignored;
        socket().set_option(boost::asio::socket_base::linger(true, 0), ignored);
        socket().close(ignored);
    }

private:
    using Tls = boost::asio::ssl::stream<Socket>;

    void shutDownSocket()
    {
        Error ignored;
        socket().shutdown(Socket::shutdown_send, ignored);
    }

    std::unique_ptr<Socket> plain_; // one of the two
    std::unique_ptr<Tls> tls_;
    std::string putBack_;
};

} // namespace connector::http::engine
