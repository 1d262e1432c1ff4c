// The floor of host_bench.py: an embedded interpreter behind one network thread, and nothing else. No guards, no
// sessions, no JSON. Prints its port; ends with SIGTERM.
//
// HTTP: POST /eval takes code, and answers with the value's text, a line feed, and the output; POST /interrupt breaks
// what runs. WebSocket: a message is a letter and a text.
//   e CODE   v VALUE, a line feed, and the output; or x ERROR
//   s CODE   o OUTPUT again and again while it runs, then v VALUE or x ERROR
//   c NAME   c and one candidate a line

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include <poll.h>
#include <pthread.h>

#include "FloorServer.h"
#include "platform/fl/adaptive_spin.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPiece = 8192;
constexpr std::chrono::milliseconds kLongestDelay{10};
constexpr std::size_t kMostOutput = std::size_t{256} << 20;
constexpr const char* kCapsuleName = "floor.output";

struct Release
{
    void operator()(PyObject* object) const { Py_XDECREF(object); }
};
using Ref = std::unique_ptr<PyObject, Release>;

std::string textOf(PyObject* text)
{
    Py_ssize_t size = 0;
    const char* bytes = text ? PyUnicode_AsUTF8AndSize(text, &size) : nullptr;
    if (!bytes) {
        PyErr_Clear();
        return {};
    }
    return {bytes, static_cast<std::size_t>(size)};
}

/// What the running code prints, of one task.
class Output
{
public:
    explicit Output(FloorServer& server) : server_(server) {}

    void begin(const FloorServer::Task& task, bool pieces)
    {
        task_ = &task;
        pieces_ = pieces;
        text_.clear();
        sent_ = Clock::now();
    }
    std::string end()
    {
        if (pieces_)
            flush();
        task_ = nullptr;
        return std::move(text_);
    }
    void write(std::string_view text)
    {
        if (text_.size() + text.size() > kMostOutput)
            return;
        text_ += text;
        if (pieces_ && (text_.size() >= kPiece || Clock::now() - sent_ >= kLongestDelay))
            flush();
    }
    void flush()
    {
        if (!pieces_ || text_.empty())
            return;
        server_.answer(*task_, "o" + text_);
        text_.clear();
        sent_ = Clock::now();
    }

private:
    FloorServer& server_;
    const FloorServer::Task* task_ = nullptr;
    bool pieces_ = false;
    std::string text_;
    Clock::time_point sent_;
};

Output& outputOf(PyObject* capsule) { return *static_cast<Output*>(PyCapsule_GetPointer(capsule, kCapsuleName)); }

PyObject* writeOutput(PyObject* self, PyObject* text)
{
    Py_ssize_t size = 0;
    const char* bytes = PyUnicode_AsUTF8AndSize(text, &size);
    if (!bytes)
        return nullptr;
    outputOf(self).write({bytes, static_cast<std::size_t>(size)});
    return PyLong_FromSsize_t(size);
}

PyObject* flushOutput(PyObject* self, PyObject*)
{
    outputOf(self).flush();
    Py_RETURN_NONE;
}

PyMethodDef kWrite{"write", writeOutput, METH_O, nullptr};
PyMethodDef kFlush{"flush", flushOutput, METH_NOARGS, nullptr};

/// The interpreter, on the thread that makes it.
class Floor
{
public:
    Floor() : output_(server_)
    {
        std::signal(SIGINT, SIG_DFL); // a shell starts background jobs without it, and the interpreter leaves that so
        Py_InitializeEx(1);
        Ref types(PyImport_ImportModule("types"));
        Ref capsule(PyCapsule_New(&output_, kCapsuleName, nullptr));
        Ref stream(PyObject_CallMethod(types.get(), "SimpleNamespace", nullptr));
        for (auto* method : {&kWrite, &kFlush})
            PyObject_SetAttrString(stream.get(), method->ml_name, Ref(PyCFunction_New(method, capsule.get())).get());
        PySys_SetObject("stdout", stream.get());
        globals_ = PyModule_GetDict(PyImport_AddModule("__main__"));
        server_.context = this;
        server_.onInterrupt = [](void* self) { static_cast<Floor*>(self)->interrupt(); };
    }

    std::uint16_t port() const { return server_.port(); }

    [[noreturn]] void serve()
    {
        PyThreadState* state = PyEval_SaveThread();
        FloorServer::Task task;
        fl::AdaptiveSpin spin;
        for (;;) {
            pollfd waited{server_.taskFd(), POLLIN, 0};
            if (::poll(&waited, 1, spin.isActive() ? 0 : -1) <= 0 || !server_.takeTask(task)) {
                spin.giveWay();
                continue;
            }
            PyEval_RestoreThread(state);
            running_ = true;
            handle(task);
            running_ = false;
            state = PyEval_SaveThread();
            spin.start(fl::AdaptiveSpin::kForNextTask);
        }
    }

private:
    void interrupt()
    {
        if (running_)
            ::pthread_kill(thread_, SIGINT);
    }

    void handle(const FloorServer::Task& task)
    {
        const char kind = task.webSocket && !task.text.empty() ? task.text[0] : 'h';
        const std::string text = kind == 'h' ? task.text : task.text.substr(1);
        if (kind == 'c') {
            server_.answer(task, "c" + complete(text));
            return;
        }
        output_.begin(task, kind == 's');
        bool failed = false;
        const std::string value = evaluate(text, failed);
        const std::string answer = value + "\n" + output_.end();
        server_.answer(task, kind == 'h' ? answer : (failed ? "x" : "v") + answer);
    }

    /// The value's text, or the error's type.
    std::string evaluate(const std::string& code, bool& failed)
    {
        Ref compiled(Py_CompileString(code.c_str(), "<code>", Py_eval_input));
        if (!compiled) {
            PyErr_Clear();
            compiled.reset(Py_CompileString(code.c_str(), "<code>", Py_file_input));
        }
        Ref value(compiled ? PyEval_EvalCode(compiled.get(), globals_, globals_) : nullptr);
        if (!value) {
            failed = true;
            return takeError();
        }
        return value.get() == Py_None ? "" : textOf(Ref(PyObject_Repr(value.get())).get());
    }

    static std::string takeError()
    {
        PyObject* parts[3];
        PyErr_Fetch(&parts[0], &parts[1], &parts[2]);
        const Ref kept[] = {Ref(parts[0]), Ref(parts[1]), Ref(parts[2])};
        return parts[0] ? reinterpret_cast<PyTypeObject*>(parts[0])->tp_name : "";
    }

    std::string complete(const std::string& name)
    {
        const auto dot = name.rfind('.');
        if (dot == std::string::npos)
            return {};
        const std::string tail = name.substr(dot + 1);
        Ref head(PyRun_String(name.substr(0, dot).c_str(), Py_eval_input, globals_, globals_));
        Ref names(head ? PyObject_Dir(head.get()) : nullptr);
        PyErr_Clear();
        std::string found;
        for (Py_ssize_t i = 0; names && i < PyList_GET_SIZE(names.get()); ++i)
            if (auto candidate = textOf(PyList_GET_ITEM(names.get(), i)); candidate.starts_with(tail))
                found += candidate + "\n";
        return found;
    }

    FloorServer server_;
    Output output_;
    PyObject* globals_ = nullptr; // borrowed of the module
    const pthread_t thread_ = ::pthread_self();
    std::atomic<bool> running_ = false;
};

} // namespace

int main()
{
    Floor floor;
    std::printf("%d\n", floor.port());
    std::fflush(stdout);
    floor.serve();
}
