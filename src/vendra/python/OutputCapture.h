#pragma once

#include <array>
#include <string>
#include <string_view>

#include <pthread.h>

#include "platform/rqe/Interpreter.h"
#include "vendra/python/Object.h"

namespace vendra::python {

/// Decides at each write to sys.stdout and sys.stderr where it goes: while a Scope stands, what the interpreter thread
/// writes goes to its sink; all else goes to the real streams. Lines are handed over whole where they come in pieces,
/// and with the language's lock released, since a sink may make the printing code wait.
/// Made on the interpreter thread, used with the language's lock. Must outlive the language.
class OutputCapture
{
public:
    OutputCapture() = default;
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// Puts the redirecting objects in place of sys.stdout, sys.stderr and sys.stdin. ErrorSet on failure.
    void install(PyObject* support);

    /// True for the interpreter thread while a Scope stands.
    bool captured() const noexcept;

    void write(rqe::Stream stream, std::string_view text);
    /// Hands over what waits for the end of its line.
    void flush();
    /// The next line of what the sink has to read; "" at its end. ErrorSet when an interrupt comes first.
    std::string readLine();

    /// Redirects while it stands. A null sink drops what is written.
    class Scope
    {
    public:
        Scope(OutputCapture& capture, rqe::OutputSink* sink);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        OutputCapture& capture_;
        rqe::OutputSink* outerSink_;
        bool outerActive_;
    };

    /// What the methods of one redirecting object work on.
    struct Target
    {
        OutputCapture* capture = nullptr;
        rqe::Stream stream = rqe::Stream::output;
        PyObject* real = nullptr; ///< borrowed from sys.__stdout__ or sys.__stderr__; null when there is none
    };

private:
    void writeUnlocked(rqe::Stream stream, std::string_view text);

    const pthread_t thread_ = ::pthread_self();
    bool active_ = false;
    rqe::OutputSink* sink_ = nullptr;
    rqe::Stream pendingStream_ = rqe::Stream::output;
    std::string pending_;
    std::array<Target, 2> targets_;
};

} // namespace vendra::python
