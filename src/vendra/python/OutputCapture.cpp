#include "vendra/python/OutputCapture.h"

#include <algorithm>
#include <utility>

namespace vendra::python {
namespace {

constexpr std::size_t kLongestPiece = 8192;
/// How often code that waits for input looks whether it was interrupted.
constexpr std::chrono::milliseconds kInterruptLook{20};

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
    if (!target.capture->captured()) {
        if (target.real)
            return PyObject_CallMethod(target.real, "write", "O", text);
        return PyLong_FromSsize_t(PyUnicode_Check(text) ? PyUnicode_GET_LENGTH(text) : 0);
    }
    if (!PyUnicode_Check(text)) {
        PyErr_Format(PyExc_TypeError, "write() argument must be str, not %s", Py_TYPE(text)->tp_name);
        return nullptr;
    }
    withText(text, [&](std::string_view utf8) { target.capture->write(target.stream, utf8); });
    return PyLong_FromSsize_t(PyUnicode_GET_LENGTH(text));
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
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* readLine(PyObject* self, PyObject*)
try {
    return makeText(targetOf(self).capture->readLine()).release();
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

struct Unlocked
{
    PyThreadState* state = PyEval_SaveThread();
    ~Unlocked() { PyEval_RestoreThread(state); }
};

PyObject* realStream(const char* name)
{
    PyObject* stream = PySys_GetObject(name); // borrowed
    return stream == Py_None ? nullptr : stream;
}

} // namespace

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
}

bool OutputCapture::captured() const noexcept { return active_ && ::pthread_equal(::pthread_self(), thread_); }

void OutputCapture::write(rqe::Stream stream, std::string_view text)
{
    if (!sink_ || text.empty())
        return;
    if (stream != pendingStream_)
        flush();
    pendingStream_ = stream;
    const bool lineEnds = std::any_of(text.rbegin(), text.rend(), [](char c) { return c == '\n' || c == '\r'; });
    if (!lineEnds && pending_.size() + text.size() < kLongestPiece) {
        pending_ += text;
        return;
    }
    if (pending_.empty()) {
        if (!sink_->tryWrite(stream, text))
            writeUnlocked(stream, text);
        return;
    }
    pending_ += text;
    flush();
}

void OutputCapture::flush()
{
    if (pending_.empty())
        return;
    if (!sink_ || sink_->tryWrite(pendingStream_, pending_)) {
        pending_.clear(); // and keeps its memory
        return;
    }
    // While the language is free others may write.
    const std::string piece = std::exchange(pending_, {});
    writeUnlocked(pendingStream_, piece);
}

void OutputCapture::writeUnlocked(rqe::Stream stream, std::string_view text)
{
    rqe::OutputSink* const sink = sink_;
    Unlocked unlocked;
    sink->write(stream, text);
}

std::string OutputCapture::readLine()
{
    flush();
    for (;;) {
        if (!captured() || !sink_)
            return {};
        std::optional<std::string> line;
        {
            Unlocked unlocked;
            line = sink_->readLine(kInterruptLook);
        }
        if (PyErr_CheckSignals() != 0)
            throw ErrorSet{};
        if (line)
            return std::move(*line);
    }
}

OutputCapture::Scope::Scope(OutputCapture& capture, rqe::OutputSink* sink)
    : capture_(capture), outerSink_(capture.sink_), outerActive_(capture.active_)
{
    capture_.sink_ = sink;
    capture_.active_ = true;
}

OutputCapture::Scope::~Scope()
{
    capture_.pending_.clear();
    capture_.sink_ = outerSink_;
    capture_.active_ = outerActive_;
}

} // namespace vendra::python
