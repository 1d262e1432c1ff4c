#include "vendra/python/OutputCapture.h"

#include <algorithm>
#include <cstdint>
#include <cxxabi.h>
#include <exception>
#include <utility>
#include <vector>

#include "vendra/python/ThreadOutput.h"
#include "vendra/python/Ticks.h"

namespace vendra::python {
namespace {

constexpr std::size_t kLongestPiece = 8192;
constexpr unsigned kMostFlushes = 1000;
/// How often code that waits for input looks whether it was interrupted.
constexpr std::chrono::milliseconds kInterruptLook{20};

/// Faster than what other programs do for the code that prints.
constexpr std::uint64_t kBurstTicks = 20 * kTicksPerMicrosecond;

/// For the handler that a fork calls in the child.
OutputCapture* theCapture = nullptr;

/// Of a capsule without a name, which nobody but the function has: comparing names would cost more than a write.
OutputCapture::Target& targetOf(PyObject* capsule)
{
    void* target = PyCapsule_GetPointer(capsule, nullptr);
    if (!target)
        throw ErrorSet{};
    return *static_cast<OutputCapture::Target*>(target);
}

PyObject* writeText(PyObject* self, PyObject* text)
try {
    OutputCapture::Target& target = targetOf(self);
    if (!target.capture->captured())
        return target.capture->writeReal(target, text).release();
    if (!PyUnicode_Check(text)) {
        PyErr_Format(PyExc_TypeError, "write() argument must be str, not %s", Py_TYPE(text)->tp_name);
        return nullptr;
    }
    withText(text, [&](std::string_view utf8) { target.capture->write(target.stream, utf8); });
    return PyLong_FromSsize_t(PyUnicode_GET_LENGTH(text));
} catch (const abi::__forced_unwind&) {
    throw; // the language ends the thread
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* flushText(PyObject* self, PyObject*)
try {
    OutputCapture::Target& target = targetOf(self);
    if (target.capture->captured())
        target.capture->flush();
    else if (target.real)
        return PyObject_CallMethod(target.real, "flush", nullptr);
    Py_RETURN_NONE;
} catch (const abi::__forced_unwind&) {
    throw;
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* readLine(PyObject* self, PyObject*)
try {
    return makeText(targetOf(self).capture->readLine()).release();
} catch (const abi::__forced_unwind&) {
    throw;
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* isCaptured(PyObject* self, PyObject*)
try {
    return PyBool_FromLong(targetOf(self).capture->captured());
} catch (const ErrorSet&) {
    return nullptr;
}

PyMethodDef writeMethod = {"write", writeText, METH_O, "Write text; returns the number of characters."};
PyMethodDef flushMethod = {"flush", flushText, METH_NOARGS, "Pass on what is buffered."};
PyMethodDef readMethod = {"read_line", readLine, METH_NOARGS,
                          "A client's next line with its end; '' when there is none."};
PyMethodDef capturedMethod = {"captured", isCaptured, METH_NOARGS, "Does the output of this thread go to a client?"};

Ref makeFunction(PyMethodDef& method, OutputCapture::Target& target)
{
    Ref capsule = Ref::own(PyCapsule_New(&target, nullptr, nullptr));
    return Ref::own(PyCFunction_New(&method, capsule.get()));
}

PyObject* realStream(const char* name)
{
    PyObject* stream = PySys_GetObject(name); // borrowed
    return stream == Py_None ? nullptr : stream;
}

} // namespace

Printer*& OutputCapture::printerOfThread() noexcept
{
    static constinit thread_local Printer* printer = nullptr;
    return printer;
}

OutputCapture::OutputCapture()
{
    theCapture = this;
    static const int registered = ::pthread_atfork(nullptr, nullptr, &OutputCapture::becomeChild);
    static_cast<void>(registered);
}

OutputCapture::~OutputCapture() { theCapture = nullptr; }

/// What a child writes goes where its parent's thread wrote to, by the descriptors alone.
void OutputCapture::becomeChild() noexcept
{
    if (!theCapture)
        return;
    theCapture->child_ = true;
    theCapture->descriptors_.becomeChild(theCapture->captured());
    printerOfThread() = nullptr;
}

void OutputCapture::install(PyObject* support)
{
    targets_[0] = {this, rqe::Stream::output, realStream("__stdout__")};
    targets_[1] = {this, rqe::Stream::error, realStream("__stderr__")};
    // The real streams outlive the redirection, whatever a script does to the names.
    for (const Target& target : targets_)
        Py_XINCREF(target.real);
    Ref writeOut = makeFunction(writeMethod, targets_[0]);
    Ref flushOut = makeFunction(flushMethod, targets_[0]);
    Ref writeError = makeFunction(writeMethod, targets_[1]);
    Ref flushError = makeFunction(flushMethod, targets_[1]);
    Ref captureAsked = makeFunction(capturedMethod, targets_[0]);
    Ref read = makeFunction(readMethod, targets_[0]);
    Ref::own(PyObject_CallMethod(support, "install_streams", "OOOOOO", writeOut.get(), flushOut.get(), writeError.get(),
                                 flushError.get(), read.get(), captureAsked.get()));
    installThreadOutput(*this, support);
}

bool OutputCapture::captured() const noexcept
{
    const Printer* const printer = printerOfThread();
    return printer && printer->outlet->isOpen();
}

Ref OutputCapture::writeReal(const Target& target, PyObject* text)
{
    if (!target.real)
        return Ref::own(PyLong_FromSsize_t(PyUnicode_Check(text) ? PyUnicode_GET_LENGTH(text) : 0));
    if (!descriptors_.areLed() || !PyUnicode_Check(text)) {
        ++realWrites_;
        Ref count = Ref::own(PyObject_CallMethod(target.real, "write", "O", text));
        if (child_) // which may end without looking after its streams
            Ref::own(PyObject_CallMethod(target.real, "flush", nullptr));
        return count;
    }
    const std::string encoding = textOf(Ref::own(PyObject_GetAttrString(target.real, "encoding")).get());
    const std::string errors = textOf(Ref::own(PyObject_GetAttrString(target.real, "errors")).get());
    const Ref bytes = Ref::own(PyUnicode_AsEncodedString(text, encoding.c_str(), errors.c_str()));
    char* data = nullptr;
    Py_ssize_t size = 0;
    check(PyBytes_AsStringAndSize(bytes.get(), &data, &size));
    {
        const Unlocked unlocked;
        descriptors_.writeOwn(target.stream, {data, static_cast<std::size_t>(size)});
    }
    return Ref::own(PyLong_FromSsize_t(PyUnicode_GET_LENGTH(text)));
}

void OutputCapture::write(rqe::Stream stream, std::string_view text)
{
    Printer& printer = *printerOfThread();
    if (text.empty())
        return;
    if (stream != printer.stream)
        flush(printer);
    printer.stream = stream;
    const bool lineEnds = std::any_of(text.rbegin(), text.rend(), [](char c) { return c == '\n' || c == '\r'; });
    if (!lineEnds && printer.pending.size() + text.size() < kLongestPiece) {
        printer.pending += text;
        return;
    }
    deliverOlder();
    if (printer.pending.empty())
        return hand(printer.outlet, stream, text);
    printer.pending += text;
    flush(printer);
}

/// What children and C code have written comes before what is printed after it. Asking costs as much as printing a
/// line, so it is done only where there was the time for something else.
void OutputCapture::deliverOlder()
{
    const std::uint64_t now = ticks();
    const bool isBurst = now - std::exchange(printedAt_, now) < kBurstTicks;
    if (isBurst || !descriptors_.areLed() || !::pthread_equal(::pthread_self(), thread_) || !descriptors_.hasMore())
        return;
    {
        const Unlocked unlocked;
        descriptors_.deliver();
    }
    printedAt_ = ticks();
}

void OutputCapture::flush() { flush(*printerOfThread()); }

void OutputCapture::flush(Printer& printer)
{
    if (printer.pending.empty() || child_) // the child's copy is not the one that is told
        return;
    if (printer.outlet->tryWrite(printer.stream, printer.pending)) {
        printer.pending.clear(); // and keeps its memory
        return;
    }
    // While the language is free others may write.
    const std::string piece = std::exchange(printer.pending, {});
    handUnlocked(printer.outlet, printer.stream, piece);
}

void OutputCapture::hand(const std::shared_ptr<Outlet>& outlet, rqe::Stream stream, std::string_view text)
{
    if (!outlet->tryWrite(stream, text))
        handUnlocked(outlet, stream, text);
}

void OutputCapture::handUnlocked(const std::shared_ptr<Outlet>& outlet, rqe::Stream stream, std::string_view text)
{
    const Unlocked unlocked;
    if (!outlet->write(stream, text))
        descriptors_.writeOwn(stream, text);
}

void OutputCapture::flushAll(const std::shared_ptr<Outlet>& outlet)
{
    std::vector<std::pair<rqe::Stream, std::string>> pieces;
    for (Printer* const printer : outlet->printers)
        if (!printer->pending.empty())
            pieces.emplace_back(printer->stream, std::exchange(printer->pending, {}));
    for (const auto& [stream, text] : pieces)
        hand(outlet, stream, text);
}

/// What was written to them goes to where descriptors 1 and 2 lead now.
void OutputCapture::flushReal() noexcept
{
    static PyObject* const name = PyUnicode_InternFromString("flush");
    for (const Target& target : targets_) {
        if (!target.real)
            continue;
        PyObject* const done = PyObject_CallMethodNoArgs(target.real, name);
        if (!done)
            PyErr_Clear(); // whoever uses the stream next is told
        Py_XDECREF(done);
    }
}

std::string OutputCapture::readLine()
{
    for (;;) {
        if (!captured())
            return {};
        flush();
        const std::shared_ptr<Outlet> outlet = printerOfThread()->outlet;
        std::optional<std::string> line;
        {
            const Unlocked unlocked;
            line = outlet->readLine(kInterruptLook);
        }
        if (PyErr_CheckSignals() != 0) {
            const Unlocked unlocked;
            outlet->stopReading();
            throw ErrorSet{};
        }
        if (line)
            return std::move(*line);
    }
}

OutputCapture::Scope::Scope(OutputCapture& capture, rqe::OutputSink* sink)
    : capture_(capture), outlet_(std::make_shared<Outlet>(sink)), printer_(outlet_),
      outer_(std::exchange(printerOfThread(), &printer_)), leads_(sink && !outer_)
{
    if (!leads_)
        return;
    if (!capture_.descriptors_.areLed()) {
        // Others may write while that waits, and what they write must not come out in the evaluation.
        unsigned before = 0;
        unsigned tries = 0;
        do {
            before = capture_.realWrites_;
            capture_.flushReal();
        } while (before != capture_.realWrites_ && ++tries < kMostFlushes);
    }
    capture_.descriptors_.begin(outlet_);
}

OutputCapture::Scope::~Scope()
{
    try {
        finish();
    } catch (const std::exception&) {
        // Memory is short: the error that got here is told instead.
    }
    printerOfThread() = capture_.child_ ? nullptr : outer_;
}

void OutputCapture::Scope::finish()
{
    if (std::exchange(finished_, true) || capture_.child_)
        return;
    capture_.flushAll(outlet_);
    if (leads_) {
        capture_.flushReal();
        if (!capture_.descriptors_.tryFinish()) {
            const Unlocked unlocked;
            capture_.descriptors_.finish();
        }
    }
    if (outlet_->printers.size() == 1)
        return outlet_->close();
    const Unlocked unlocked;
    outlet_->close();
}

OutputCapture::Heir::Heir(OutputCapture& capture, std::shared_ptr<Outlet> outlet)
    : capture_(capture), printer_(std::move(outlet)), outer_(std::exchange(printerOfThread(), &printer_))
{}

OutputCapture::Heir::~Heir() { printerOfThread() = capture_.child_ ? nullptr : outer_; }

std::shared_ptr<Outlet> OutputCapture::Heir::outletOfThread()
{
    const Printer* const printer = printerOfThread();
    return printer && printer->outlet->isOpen() ? printer->outlet : nullptr;
}

} // namespace vendra::python
