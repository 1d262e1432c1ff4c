#include "connector/http/engine/ResponseWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "connector/common/Log.h"
#include "connector/http/engine/Loop.h"

namespace connector::http::engine {

namespace {

constexpr std::uint64_t kSendfileBytes = 2u << 20;
/// After so much in one go the loop's other connections get their turn.
constexpr std::uint64_t kTurnBytes = 2u << 20;
/// Files smaller than this are not worth the two calls.
constexpr std::uint64_t kCorkedBytes = 256u << 10;
constexpr std::size_t kTlsReadBytes = 64u << 10;
constexpr std::chrono::seconds kRateGrace{30};

std::string framed(const std::string& piece)
{
    std::array<char, 20> size{};
    const int digits = std::snprintf(size.data(), size.size(), "%zx\r\n", piece.size());
    std::string text;
    text.reserve(piece.size() + static_cast<std::size_t>(digits) + 2);
    text.append(size.data(), static_cast<std::size_t>(digits)).append(piece).append("\r\n");
    return text;
}

} // namespace

ResponseWriter::Progress ResponseWriter::start(std::unique_ptr<HttpResponse> response, std::string head,
                                               const ResponseTerms& terms, std::size_t alreadySent)
{
    ++number_;
    response_ = std::move(response);
    terms_ = terms;
    buffer_ = std::move(head);
    part_ = 0;
    file_ = nullptr;
    stuck_ = false;
    stuckFor_ = {};
    sentBytes_ = 0;
    const bool withBody = !terms.withoutBody && hasBody(response_->status);
    producing_ = withBody && response_->producer;
    if (!withBody)
        response_->parts.clear();
    text_ = {buffer_, withBody ? std::string_view(response_->body) : std::string_view()};
    sent(alreadySent);
    return advance();
}

bool ResponseWriter::isLate(Clock::time_point now, std::chrono::milliseconds patience,
                            std::uint64_t minRate) const noexcept
{
    if (!stuck_)
        return false;
    if (now - stuckSince_ >= patience)
        return true;
    const auto stuck = stuckFor_ + (now - stuckSince_);
    return stuck > kRateGrace && static_cast<double>(sentBytes_) <
                                     std::chrono::duration<double>(stuck).count() * static_cast<double>(minRate);
}

void ResponseWriter::abandon()
{
    ++number_;
    stuck_ = false;
    response_.reset();
    piece_.cancel();
    piece_ = {};
}

ResponseWriter::Progress ResponseWriter::advance()
{
    const std::uint64_t begun = sentBytes_;
    for (;;) {
        auto progress = Progress::done;
        if (!text_[0].empty() || !text_[1].empty())
            progress = sendText();
        else if (file_)
            progress = stream_.isTls() ? readForTls() : sendFile();
        else if (nextPart())
            continue;
        else if (producing_)
            progress = fetchPiece();
        else
            return finish(Progress::done);
        if (progress == Progress::failed)
            return finish(progress);
        if (progress == Progress::waiting)
            return progress;
        if (sentBytes_ - begun >= kTurnBytes) {
            boost::asio::post(stream_.get_executor(), [this, owner = owner_.ownerPtr(), number = number_] {
                if (number == number_)
                    resume({});
            });
            return Progress::waiting;
        }
    }
}

ResponseWriter::Progress ResponseWriter::finish(Progress progress)
{
    response_.reset();
    buffer_.clear();
    cork(false);
    return progress;
}

/// While a file is sent the kernel fills whole segments instead of sending each run of pages at once, which takes it
/// twice as long.
void ResponseWriter::cork(bool on)
{
    if (corked_ == on || stream_.isTls())
        return;
    corked_ = on;
    const int value = on ? 1 : 0;
    ::setsockopt(stream_.socket().native_handle(), IPPROTO_TCP, TCP_CORK, &value, sizeof value);
}

/// Makes the next part what is to be sent; false when there is none.
bool ResponseWriter::nextPart()
{
    if (part_ >= response_->parts.size())
        return false;
    const BodyPart& part = response_->parts[part_++];
    if (part.file) {
        file_ = part.length > 0 ? &part : nullptr;
        cork(part.length >= kCorkedBytes);
        fileOffset_ = part.offset;
        fileLeft_ = part.length;
    } else {
        text_ = {part.text, {}};
    }
    return true;
}

ResponseWriter::Progress ResponseWriter::sendText()
{
    if (stream_.isTls()) {
        stuck_ = true;
        stuckSince_ = Clock::now();
        // TLS takes one buffer at a time.
        const std::string_view bytes = text_[0].empty() ? text_[1] : text_[0];
        stream_.async_write_some(boost::asio::buffer(bytes.data(), bytes.size()),
                                 [this, owner = owner_.ownerPtr(),
                                  number = number_](const boost::system::error_code& error, std::size_t count) {
                                     if (number != number_)
                                         return;
                                     sent(count);
                                     resume(error);
                                 });
        return Progress::waiting;
    }
    std::array<iovec, 2> parts{
        {{const_cast<char*>(text_[0].data()), text_[0].size()}, {const_cast<char*>(text_[1].data()), text_[1].size()}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    const bool more = part_ < response_->parts.size();
    const auto count =
        ::sendmsg(stream_.socket().native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL | (more ? MSG_MORE : 0));
    if (count < 0)
        return afterFailure();
    sent(static_cast<std::size_t>(count));
    return Progress::done;
}

ResponseWriter::Progress ResponseWriter::sendFile()
{
    auto offset = static_cast<off_t>(fileOffset_);
    const auto wanted = static_cast<std::size_t>(std::min(fileLeft_, kSendfileBytes));
    const auto count = ::sendfile(stream_.socket().native_handle(), file_->file->number(), &offset, wanted);
    if (count < 0)
        return afterFailure();
    if (count == 0)
        return Progress::failed; // the file is shorter than it was
    const auto bytes = static_cast<std::uint64_t>(count);
    fileOffset_ += bytes;
    fileLeft_ -= bytes;
    sentBytes_ += bytes;
    if (fileLeft_ == 0)
        file_ = nullptr;
    return Progress::done;
}

ResponseWriter::Progress ResponseWriter::afterFailure()
{
    if (errno == EINTR)
        return Progress::done;
    return errno == EAGAIN || errno == EWOULDBLOCK ? waitForRoom() : Progress::failed;
}

ResponseWriter::Progress ResponseWriter::readForTls()
{
    buffer_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(fileLeft_, kTlsReadBytes)));
    const auto count = ::pread(file_->file->number(), buffer_.data(), buffer_.size(), static_cast<off_t>(fileOffset_));
    if (count <= 0)
        return Progress::failed;
    buffer_.resize(static_cast<std::size_t>(count));
    fileOffset_ += static_cast<std::uint64_t>(count);
    fileLeft_ -= static_cast<std::uint64_t>(count);
    if (fileLeft_ == 0)
        file_ = nullptr;
    text_ = {buffer_, {}};
    return Progress::done;
}

ResponseWriter::Progress ResponseWriter::fetchPiece()
{
    auto next = response_->producer->next();
    if (next.isReady()) {
        try {
            tookPiece(next);
        } catch (const std::exception& error) {
            common::log("connector.http", common::LogLevel::error,
                        std::string("A response's body ended early: ") + error.what());
            return Progress::failed;
        }
        return Progress::done;
    }
    piece_ = next.then([this, weak = std::weak_ptr(owner_.ownerPtr()), weakLoop = owner_.weakLoop(),
                        number = number_](Future<std::string> settled) {
        const auto loop = weakLoop.lock();
        if (!loop)
            return false;
        auto held = std::make_shared<Future<std::string>>(std::move(settled));
        boost::asio::post(loop->context(), [this, weak, number, held] {
            const auto owner = weak.lock();
            if (!owner || number != number_)
                return;
            try {
                tookPiece(*held);
            } catch (const std::exception& error) {
                common::log("connector.http", common::LogLevel::error,
                            std::string("A response's body ended early: ") + error.what());
                return tellProgress(finish(Progress::failed));
            }
            resume({});
        });
        return true;
    });
    return Progress::waiting;
}

void ResponseWriter::tookPiece(Future<std::string>& settled)
{
    std::string piece = settled.get();
    producing_ = !piece.empty();
    buffer_ = terms_.http10 ? std::move(piece) : producing_ ? framed(piece) : "0\r\n\r\n";
    text_ = {buffer_, {}};
}

ResponseWriter::Progress ResponseWriter::waitForRoom()
{
    stuck_ = true;
    stuckSince_ = Clock::now();
    stream_.socket().async_wait(Stream::Socket::wait_write, [this, owner = owner_.ownerPtr(),
                                                             number = number_](const boost::system::error_code& error) {
        if (number == number_)
            resume(error);
    });
    return Progress::waiting;
}

void ResponseWriter::resume(const boost::system::error_code& error)
{
    if (stuck_) {
        stuck_ = false;
        stuckFor_ += Clock::now() - stuckSince_;
    }
    const auto progress = error ? finish(Progress::failed) : advance();
    if (progress != Progress::waiting)
        tellProgress(progress);
}

void ResponseWriter::tellProgress(Progress progress) { owner_.responseProgress(progress); }

void ResponseWriter::sent(std::size_t count)
{
    sentBytes_ += count;
    for (auto& text : text_) {
        const auto here = std::min(count, text.size());
        text.remove_prefix(here);
        count -= here;
    }
}

} // namespace connector::http::engine
