#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "vendra/python/Object.h"

namespace vendra::python {

/// Messages of one subscription on their way from any thread to the interpreter's, which gives them to a function. Of
/// more than kMaxWaiting, or kMaxWaitingBytes, the newest are lost; their number is said before the next.
class BusInbox final : public std::enable_shared_from_this<BusInbox>
{
public:
    static constexpr std::size_t kMaxWaiting = 10'000;
    static constexpr std::size_t kMaxWaitingBytes = 64u << 20;

    /// Takes a reference to `deliver`, which `close` gives back.
    explicit BusInbox(PyObject* deliver) : deliver_(Ref::share(deliver)) {}

    /// Any thread.
    void receive(const std::string& channel, const std::string& json);
    /// With the language's lock.
    void close();

private:
    class Drain;
    using Message = std::pair<std::string, std::string>;

    void drain();
    void postIfLeft();
    void post();

    std::mutex mutex_;
    std::deque<Message> waiting_;
    std::size_t waitingBytes_ = 0;
    std::size_t lost_ = 0;
    bool posted_ = false;
    bool closed_ = false;
    Ref deliver_; ///< the language's lock guards it
};

} // namespace vendra::python
