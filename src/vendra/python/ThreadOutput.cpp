#include "vendra/python/ThreadOutput.h"

#include <cxxabi.h>
#include <memory>
#include <utility>

namespace vendra::python {
namespace {

constexpr const char* kOutletName = "vendra.outlet";

/// What a capsule holds.
struct Inheritance
{
    OutputCapture* capture;
    std::shared_ptr<Outlet> outlet;
};

void destroyInheritance(PyObject* capsule)
{
    delete static_cast<Inheritance*>(PyCapsule_GetPointer(capsule, kOutletName));
}

/// outlet(): what `run_for` takes, of the thread that calls; None when it prints to the host's own output.
PyObject* outlet(PyObject* self, PyObject*)
try {
    auto found = OutputCapture::Heir::outletOfThread();
    if (!found)
        Py_RETURN_NONE;
    auto* const capture = static_cast<OutputCapture*>(PyCapsule_GetPointer(self, nullptr));
    auto inheritance = std::make_unique<Inheritance>(Inheritance{capture, std::move(found)});
    Ref capsule = Ref::own(PyCapsule_New(inheritance.get(), kOutletName, destroyInheritance));
    inheritance.release();
    return capsule.release();
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

/// run_for(outlet, function, arguments, named arguments=None): calls the function, and what it prints goes there.
PyObject* runFor(PyObject*, PyObject* arguments)
try {
    PyObject* capsule = nullptr;
    PyObject* function = nullptr;
    PyObject* values = nullptr;
    PyObject* named = nullptr;
    if (!PyArg_ParseTuple(arguments, "OOO!|O", &capsule, &function, &PyTuple_Type, &values, &named))
        return nullptr;
    const auto* const inheritance = static_cast<Inheritance*>(PyCapsule_GetPointer(capsule, kOutletName));
    if (!inheritance)
        return nullptr;
    OutputCapture::Heir heir(*inheritance->capture, inheritance->outlet);
    PyObject* answer = PyObject_Call(function, values, named == Py_None ? nullptr : named);
    if (!answer && !PyErr_ExceptionMatches(PyExc_SystemExit)) {
        // As the language does for a thread, but where this one prints.
        PyErr_WriteUnraisable(function);
        answer = Py_NewRef(Py_None);
    }
    heir.finish();
    return answer;
} catch (const abi::__forced_unwind&) {
    throw; // the language ends the thread
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyMethodDef outletMethod = {"outlet", outlet, METH_NOARGS, nullptr};
PyMethodDef runMethod = {"run_for", runFor, METH_VARARGS, nullptr};

} // namespace

void installThreadOutput(OutputCapture& capture, PyObject* support)
{
    Ref self = Ref::own(PyCapsule_New(&capture, nullptr, nullptr));
    Ref asker = Ref::own(PyCFunction_New(&outletMethod, self.get()));
    Ref runner = Ref::own(PyCFunction_New(&runMethod, nullptr));
    Ref::own(PyObject_CallMethod(support, "install_threads", "OO", asker.get(), runner.get()));
}

} // namespace vendra::python
