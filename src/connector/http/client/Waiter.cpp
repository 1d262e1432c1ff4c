#include "connector/http/client/Waiter.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "connector/core/Future.h"

namespace connector::http::client {

namespace {

std::string spelled(std::chrono::milliseconds time)
{
    return time.count() % 1'000 == 0 ? std::to_string(time.count() / 1'000) + " s"
                                     : std::to_string(time.count()) + " ms";
}

void signal(int event) noexcept
{
    const std::uint64_t one = 1;
    // Only a counter that is full already makes this fail.
    [[maybe_unused]] const auto written = ::write(event, &one, sizeof one);
}

} // namespace

void Interruption::raise() noexcept
{
    std::lock_guard lock(mutex_);
    raised_.store(true, std::memory_order_release);
    if (event_)
        signal(event_.number());
}

int Interruption::descriptor()
{
    std::lock_guard lock(mutex_);
    if (!event_) {
        event_ = common::FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!event_)
            throw std::system_error(errno, std::generic_category(), "Cannot make an event descriptor");
        if (raised())
            signal(event_.number());
    }
    return event_.number();
}

Waiter::Waiter(Interruption& interruption, std::chrono::milliseconds step, std::chrono::milliseconds total,
               Clock::time_point start, std::string subject)
    : interruption_(interruption), step_(step), total_(total), end_(start + total), subject_(std::move(subject))
{}

void Waiter::check()
{
    if (interruption_.raised())
        keep(std::make_exception_ptr(FutureCancelled()));
    if (Clock::now() >= end_)
        fail(subject_ + " took longer than " + spelled(total_) + ".");
}

bool Waiter::awaitFor(int descriptor, short events, std::chrono::milliseconds limit)
{
    const auto stepEnd = Clock::now() + limit;
    for (;;) {
        check();
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::min(stepEnd, end_) - Clock::now());
        if (left.count() <= 0) {
            if (stepEnd <= end_)
                return false;
            continue; // `check` says that the time for all is over
        }
        std::array<pollfd, 2> watched{{{descriptor, events, 0}, {interruption_.descriptor(), POLLIN, 0}}};
        const auto count = ::poll(watched.data(), watched.size(), static_cast<int>(left.count()));
        if (count > 0 && watched[0].revents != 0 && watched[1].revents == 0)
            return true;
        if (count < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "Cannot wait for a socket");
    }
}

void Waiter::await(int descriptor, short events)
{
    if (!awaitFor(descriptor, events, step_))
        timedOut();
}

void Waiter::timedOut() { fail("Timed out after " + spelled(step_) + " " + activity_ + "."); }

void Waiter::fail(const std::string& text) { keep(std::make_exception_ptr(std::runtime_error(text))); }

void Waiter::keep(std::exception_ptr failure)
{
    if (!failure_)
        failure_ = std::move(failure);
    std::rethrow_exception(failure_);
}

void Waiter::rethrowFailure() const
{
    if (failure_)
        std::rethrow_exception(failure_);
}

} // namespace connector::http::client
