#pragma once

#include <deque>
#include <memory>
#include <mutex>

#include "platform/rqe/MessageBus.h"
#include "vendra/python/Object.h"

namespace vendra::python {

/// Calls of a script's service on their way from any thread to the interpreter's. Each call is a turn of its own there:
/// a service that is called without a pause leaves room for others.
class ServiceDesk final : public std::enable_shared_from_this<ServiceDesk>
{
public:
    static constexpr std::size_t kMaxWaiting = 1'000;
    static constexpr std::size_t kMaxWaitingBytes = 16u << 20;

    /// Takes a reference to `serve`, which `close` gives back: a function of channel, JSON text and session that
    /// answers (JSON text, None), or (kind, text) of an error.
    explicit ServiceDesk(PyObject* serve) : serve_(Ref::share(serve)) {}

    /// False when too much waits. Any thread.
    bool take(std::shared_ptr<rqe::ServiceCall> call);
    /// With the language's lock. What waits is for the caller to let go of without it: each call answers then.
    using Calls = std::deque<std::shared_ptr<rqe::ServiceCall>>;
    [[nodiscard]] Calls close();

private:
    class Turn;

    std::shared_ptr<rqe::ServiceCall> next();
    void turnEnded() noexcept;
    bool post();
    Calls takeAll();

    std::mutex mutex_;
    Calls waiting_;
    std::size_t waitingBytes_ = 0;
    bool posted_ = false; ///< a turn waits or runs
    bool closed_ = false;
    Ref serve_; ///< the language's lock guards it
};

} // namespace vendra::python
