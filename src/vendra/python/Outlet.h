#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/rqe/Interpreter.h"

namespace vendra::python {

struct Printer;

/// Where one evaluation's output goes until the evaluation ends: its sink, for all threads that print for it. Calls of
/// the sink come one at a time, but for readLine, which is beside them.
class Outlet
{
public:
    /// A null sink drops what is written.
    explicit Outlet(rqe::OutputSink* sink) : sink_(sink) {}
    Outlet(const Outlet&) = delete;
    Outlet& operator=(const Outlet&) = delete;

    bool isOpen() const noexcept { return open_.load(std::memory_order_acquire); }

    /// False when that would have to wait; then `write` does it. May be called with the language's lock.
    bool tryWrite(rqe::Stream stream, std::string_view text);
    /// Waits for the sink. False when the evaluation has ended: then the text is still the caller's.
    bool write(rqe::Stream stream, std::string_view text);
    /// As of the sink; "" once the evaluation has ended.
    std::optional<std::string> readLine(std::chrono::milliseconds patience);
    /// The code waits for no line any more, though none came.
    void stopReading();
    /// After that the sink is not used any more. Waits for those that use it.
    void close();

    std::vector<Printer*> printers; ///< of all threads; the language's lock guards it

private:
    std::mutex mutex_;
    std::timed_mutex reading_;
    rqe::OutputSink* const sink_;
    std::atomic<bool> open_{true};
};

/// What one thread prints for an evaluation. Used with the language's lock.
struct Printer
{
    explicit Printer(std::shared_ptr<Outlet> to) : outlet(std::move(to)) { outlet->printers.push_back(this); }
    ~Printer() { std::erase(outlet->printers, this); }
    Printer(const Printer&) = delete;
    Printer& operator=(const Printer&) = delete;

    const std::shared_ptr<Outlet> outlet;
    rqe::Stream stream = rqe::Stream::output;
    std::string pending; ///< of that stream, until its line ends
};

} // namespace vendra::python
