#include "vendra/python/Descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <exception>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/fl/i18n.h"
#include "vendra/python/LastWords.h"
#include "vendra/python/Ticks.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace vendra::python {
namespace {

/// Above what scripts expect to get next.
constexpr int kLowest = 20;
constexpr std::size_t kReadBytes = 64 * 1024;
constexpr std::size_t kLongestLine = 8 * 1024;
/// What a descriptor that is ready to be written takes without a wait.
constexpr std::size_t kOwnBytes = 4096;
/// Pipes that are read though their evaluation has ended.
constexpr std::size_t kMostKept = 64;

int descriptorOf(std::size_t stream) { return static_cast<int>(stream) + 1; }

std::size_t indexOf(rqe::Stream stream) { return stream == rqe::Stream::output ? 0 : 1; }

/// How many bytes at the end are the beginning of a character.
std::size_t begunBytes(std::string_view text)
{
    for (std::size_t back = 1; back <= std::min<std::size_t>(3, text.size()); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if (byte < 0x80)
            return 0;
        if (byte >= 0xC0) {
            const std::size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
            return back < length ? back : 0;
        }
    }
    return 0;
}

bool isReady(int descriptor, short events) noexcept
{
    pollfd asked{descriptor, events, 0};
    return ::poll(&asked, 1, 0) > 0;
}

} // namespace

Descriptors::Descriptors()
{
    for (std::size_t i = 0; i < kStreams; ++i)
        own_[i] = ::fcntl(descriptorOf(i), F_DUPFD_CLOEXEC, kLowest);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // Its last words must not end in a pipe that dies with the process.
    if (own_[1] >= 0)
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(own_[1])));
#endif
}

Descriptors::~Descriptors()
{
    if (child_) {
        if (thread_.joinable())
            thread_.detach(); // it is the parent's
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        closePipes();
        stopped_ = true;
    }
    wake();
    if (thread_.joinable())
        thread_.join();
    for (const SourcePtr& source : sources_) {
        pass(source, kReadBytes);
        ::close(source->descriptor);
    }
    for (const int descriptor : {own_[0], own_[1], write_[0], write_[1], wake_})
        if (descriptor >= 0)
            ::close(descriptor);
}

void Descriptors::begin(std::shared_ptr<Outlet> outlet)
{
    if (child_)
        return;
    if (areLed() && (hasUnread() || ::__fpending(stdout) > 0)) {
        std::fflush(stdout);
        const std::lock_guard lock(mutex_);
        closePipes();
    }
    if (!areLed()) {
        if (!current_[0] && !current_[1] && !openPipes())
            return;
        std::fflush(stdout);
        std::fflush(stderr);
        for (std::size_t i = 0; i < kStreams; ++i) {
            if (write_[i] < 0)
                continue;
            // A script may have put something else there.
            ::dup3(descriptorOf(i), own_[i], O_CLOEXEC);
            ::dup2(write_[i], descriptorOf(i));
        }
        led_ = true;
    }
    const std::lock_guard lock(mutex_);
    used_ = false;
    outlet_ = std::move(outlet);
    if (ownIsFull_)
        wake();
}

bool Descriptors::openPipes()
{
    if (wake_ < 0) {
        wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (wake_ < 0)
            return false;
        buffer_ = std::make_unique_for_overwrite<char[]>(kReadBytes);
        // Lines of C code come as they are printed, and whole: so much goes into a pipe in one piece.
        static std::array<char, PIPE_BUF> lines;
        std::setvbuf(stdout, lines.data(), _IOLBF, lines.size());
    }
    const std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < kStreams; ++i) {
        int ends[2];
        if (own_[i] < 0 || ::pipe2(ends, O_CLOEXEC) != 0)
            continue;
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
        write_[i] = ends[1];
        current_[i] = std::make_shared<Source>(Source{ends[0], i == 0 ? rqe::Stream::output : rqe::Stream::error, {}});
        sources_.push_back(current_[i]);
        LastWords::expect(static_cast<unsigned>(i), own_[i], ends[0]);
    }
    if (!current_[0] && !current_[1])
        return false;
    if (thread_.joinable()) {
        wake();
        return true;
    }
    // Signals belong to the interpreter's thread.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { run(); });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::pthread_setname_np(thread_.native_handle(), "descriptors");
    return true;
}

/// With mutex_ held. Who else has the pipes' other ends is read on, until they are closed there.
void Descriptors::closePipes()
{
    restore();
    for (std::size_t i = 0; i < kStreams; ++i) {
        LastWords::expect(static_cast<unsigned>(i), -1, -1);
        if (write_[i] >= 0)
            ::close(std::exchange(write_[i], -1));
    }
    current_.fill(nullptr);
    wake();
}

void Descriptors::giveBack() noexcept
{
    if (child_ || !areLed())
        return;
    std::fflush(stdout);
    const std::lock_guard lock(mutex_);
    // What the host's own code wrote meanwhile comes before what it writes next.
    for (const SourcePtr& source : current_) {
        int bytes = 0;
        if (source)
            ::ioctl(source->descriptor, FIONREAD, &bytes);
        for (auto left = static_cast<std::size_t>(bytes); left > 0 && mayWriteOwn(source->stream);) {
            const std::size_t most = std::min(left, kOwnBytes);
            pass(source, most);
            left -= most;
        }
    }
    lookedForProcesses_ = 0;
    if (processesCame() && sources_.size() <= kMostKept)
        return closePipes();
    restore();
}

void Descriptors::restore() noexcept
{
    if (!areLed())
        return;
    for (std::size_t i = 0; i < kStreams; ++i)
        if (write_[i] >= 0)
            ::dup2(own_[i], descriptorOf(i));
    led_ = false;
}

void Descriptors::becomeChild(bool keep) noexcept
{
    if (!keep)
        restore();
    for (unsigned i = 0; i < kStreams; ++i)
        LastWords::expect(i, -1, -1);
    led_ = false;
    child_ = true;
}

void Descriptors::deliver()
{
    if (child_ || !areLed())
        return;
    std::fflush(stdout);
    const std::lock_guard lock(mutex_);
    for (const SourcePtr& source : current_) {
        // No more than there is now: a process may write on and on.
        int bytes = 0;
        if (source && ::ioctl(source->descriptor, FIONREAD, &bytes) == 0)
            pass(source, static_cast<std::size_t>(bytes));
    }
}

void Descriptors::finish()
{
    deliver();
    if (child_)
        return;
    const std::lock_guard lock(mutex_);
    for (const SourcePtr& source : current_)
        if (source && !source->begun.empty() && outlet_)
            outlet_->write(source->stream, fl::i18n::toValidUtf8(std::exchange(source->begun, {})));
    settle();
}

bool Descriptors::hasMore()
{
    const std::unique_lock lock(mutex_, std::try_to_lock);
    return !lock || hasUnread();
}

bool Descriptors::hasUnread() const noexcept
{
    std::array<pollfd, kStreams> asked;
    for (std::size_t i = 0; i < kStreams; ++i)
        asked[i] = {current_[i] ? current_[i]->descriptor : -1, POLLIN, 0};
    return ::poll(asked.data(), asked.size(), 0) > 0;
}

bool Descriptors::tryFinish()
{
    if (child_ || !areLed())
        return true;
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock || ::__fpending(stdout) > 0)
        return false;
    const bool begun = std::any_of(current_.begin(), current_.end(),
                                   [](const SourcePtr& source) { return source && !source->begun.empty(); });
    if (begun || hasUnread())
        return false;
    settle();
    return true;
}

/// With mutex_ held.
void Descriptors::settle()
{
    outlet_.reset();
    if (used_)
        LastWords::remember({});
    if (areLed() && (used_ || processesCame()) && sources_.size() <= kMostKept)
        closePipes();
}

/// Whether there are, or have been since the last time, processes that may have the pipes.
bool Descriptors::processesCame() noexcept
{
    // Asking takes as long as a small evaluation, and starting a process a multiple of this time.
    const std::uint64_t now = ticks();
    if (now - lookedForProcesses_ < 200 * kTicksPerMicrosecond)
        return false;
    lookedForProcesses_ = now;
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    if (std::exchange(faultsOfChildren_, usage.ru_minflt) != usage.ru_minflt)
        return true;
    siginfo_t status;
    return ::waitid(P_ALL, 0, &status, WEXITED | WNOHANG | WNOWAIT) == 0;
}

void Descriptors::run()
{
    std::unique_lock lock(mutex_);
    while (!stopped_) {
        const std::vector<SourcePtr> sources = sources_;
        std::vector<pollfd> waited{{wake_, POLLIN, 0}};
        ownIsFull_ = false;
        for (const SourcePtr& source : sources) {
            const bool full = !isOwned(source) && !mayWriteOwn(source->stream);
            ownIsFull_ = ownIsFull_ || full;
            waited.push_back(full ? pollfd{own_[indexOf(source->stream)], POLLOUT, 0}
                                  : pollfd{source->descriptor, POLLIN, 0});
        }
        lock.unlock();
        ::poll(waited.data(), waited.size(), -1);
        lock.lock();
        if (waited[0].revents != 0) {
            eventfd_t count = 0;
            [[maybe_unused]] const int read = ::eventfd_read(wake_, &count);
        }
        for (std::size_t i = 0; i < sources.size(); ++i)
            if (waited[i + 1].revents != 0 && waited[i + 1].fd == sources[i]->descriptor)
                drain(sources[i]);
    }
}

/// With mutex_ held.
void Descriptors::drain(const SourcePtr& source)
try {
    const bool owned = isOwned(source);
    if (!owned && !mayWriteOwn(source->stream))
        return;
    if (pass(source, owned ? kReadBytes : kOwnBytes))
        return;
    ::close(source->descriptor);
    std::erase(sources_, source);
} catch (const std::exception& error) {
    writeOwn(rqe::Stream::error, std::string("vendra: output was lost: ") + error.what() + "\n");
}

/// With mutex_ held: whether an evaluation takes what comes.
bool Descriptors::isOwned(const SourcePtr& source) const
{
    return outlet_ && std::find(current_.begin(), current_.end(), source) != current_.end();
}

/// With mutex_ held: reads what is there, and hands it over. False at the end.
bool Descriptors::pass(const SourcePtr& source, std::size_t most)
{
    while (most > 0) {
        const std::size_t asked = std::min(most, kReadBytes);
        const ssize_t got = ::read(source->descriptor, buffer_.get(), asked);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got < 0;
        const auto size = static_cast<std::size_t>(got);
        handOver(source, {buffer_.get(), size}, size == kReadBytes);
        if (size < asked)
            return true; // there is no more, and if more comes now, it is not to be cut off where `most` ends
        most -= size;
    }
    return true;
}

/// `more`: the end is where the buffer ended, maybe in the middle of a line, which must not have others' lines in it.
void Descriptors::handOver(const SourcePtr& source, std::string_view bytes, bool more)
{
    if (!isOwned(source))
        return writeOwn(source->stream, bytes);
    used_ = true;
    if (source->stream == rqe::Stream::error)
        LastWords::remember(bytes);
    std::string text = std::exchange(source->begun, {}).append(bytes);
    std::size_t whole = text.size() - begunBytes(text);
    if (const auto end = text.find_last_of("\r\n"); more && end != text.npos && text.size() - end <= kLongestLine)
        whole = end + 1;
    source->begun = text.substr(whole);
    text.resize(whole);
    if (!fl::i18n::isValidUtf8(text))
        text = fl::i18n::toValidUtf8(text);
    if (!text.empty() && !outlet_->write(source->stream, text))
        writeOwn(source->stream, text);
}

bool Descriptors::mayWriteOwn(rqe::Stream stream) const noexcept { return isReady(own_[indexOf(stream)], POLLOUT); }

void Descriptors::writeOwn(rqe::Stream stream, std::string_view bytes) const noexcept
{
    const int descriptor = child_ ? descriptorOf(indexOf(stream)) : own_[indexOf(stream)];
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EAGAIN) {
            pollfd full{descriptor, POLLOUT, 0};
            ::poll(&full, 1, -1);
        } else if (written < 0 && errno != EINTR) {
            return; // nobody is there who could be told
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
}

void Descriptors::wake() noexcept
{
    if (wake_ >= 0) [[maybe_unused]]
        const int failed = ::eventfd_write(wake_, 1);
}

} // namespace vendra::python
