#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <pthread.h>

#include "platform/rqe/Interpreter.h"
#include "vendra/python/Descriptors.h"
#include "vendra/python/Object.h"
#include "vendra/python/Outlet.h"
#include "vendra/python/OwnLog.h"

namespace vendra::python {

/// Decides at each write to sys.stdout and sys.stderr where it goes: what the interpreter thread writes while a Scope
/// stands goes to its sink, and so does, as long as it stands, what threads write that were started under it, by
/// whichever of them, and what is written to descriptors 1 and 2. All else goes to the host's own output.
/// Lines are handed over whole where a thread writes them in pieces, and with the language's lock released where that
/// takes time, since a sink may make the printing code wait.
/// Made on the interpreter thread, used with the language's lock. Must outlive the language. One per process.
class OutputCapture
{
public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// Puts the redirecting objects in place of sys.stdout, sys.stderr and sys.stdin, and has threads inherit. ErrorSet
    /// on failure.
    void install(PyObject* support);

    /// Whether what this thread prints goes to an evaluation.
    bool captured() const noexcept;

    void write(rqe::Stream stream, std::string_view text);
    /// Hands over what waits for the end of its line.
    void flush();
    /// The next line of what the sink has to read; "" at its end. ErrorSet when an interrupt comes first.
    std::string readLine();

    /// Makes descriptors 1 and 2 those of the host again, until the next evaluation. Needs no lock of the language.
    void giveBackDescriptors() noexcept { descriptors_.giveBack(); }
    bool leadsDescriptors() const noexcept { return descriptors_.areLed(); }

    class Scope;
    class Heir;

    /// What the methods of one redirecting object work on.
    struct Target
    {
        OutputCapture* capture = nullptr;
        rqe::Stream stream = rqe::Stream::output;
        PyObject* real = nullptr; ///< borrowed from sys.__stdout__ or sys.__stderr__; null when there is none
    };
    /// A write of a thread that is not captured. ErrorSet as the real stream says.
    Ref writeReal(const Target& target, PyObject* text);

private:
    static void becomeChild() noexcept;
    static Printer*& printerOfThread() noexcept;

    void hand(const std::shared_ptr<Outlet>& outlet, rqe::Stream stream, std::string_view text);
    void handUnlocked(const std::shared_ptr<Outlet>& outlet, rqe::Stream stream, std::string_view text);
    void flush(Printer& printer);
    void flushAll(const std::shared_ptr<Outlet>& outlet);
    void flushReal() noexcept;
    void deliverOlder();

    const pthread_t thread_ = ::pthread_self();
    bool child_ = false; ///< of a fork
    Descriptors descriptors_;
    OwnLog log_{descriptors_};
    std::uint64_t printedAt_ = 0; ///< when the interpreter thread did last, in ticks of the processor's clock
    unsigned realWrites_ = 0;
    std::array<Target, 2> targets_;
};

/// Captures while it stands, on the interpreter thread. A null sink drops what is written.
class OutputCapture::Scope
{
public:
    Scope(OutputCapture& capture, rqe::OutputSink* sink);
    /// Finishes if nobody did.
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    /// Hands over all that was written; what comes from now on goes to the host's own output.
    void finish();

private:
    OutputCapture& capture_;
    const std::shared_ptr<Outlet> outlet_;
    Printer printer_;
    Printer* const outer_;
    bool leads_; ///< the descriptors
    bool finished_ = false;
};

/// Captures what a thread prints for an evaluation that another one began.
class OutputCapture::Heir
{
public:
    Heir(OutputCapture& capture, std::shared_ptr<Outlet> outlet);
    /// Without `finish` what waits for the end of its line is lost.
    ~Heir();
    Heir(const Heir&) = delete;
    Heir& operator=(const Heir&) = delete;

    void finish() { capture_.flush(printer_); }

    /// Of this thread; null where none is captured.
    static std::shared_ptr<Outlet> outletOfThread();

private:
    OutputCapture& capture_;
    Printer printer_;
    Printer* const outer_;
};

/// Gives the language's lock to others.
struct Unlocked
{
    Unlocked() = default;
    /// Does not come back on a thread that the language ends with itself.
    ~Unlocked() noexcept(false) { PyEval_RestoreThread(state); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

    PyThreadState* const state = PyEval_SaveThread();
};

} // namespace vendra::python
