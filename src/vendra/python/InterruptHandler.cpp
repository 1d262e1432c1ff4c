#include "vendra/python/InterruptHandler.h"

#include <csignal>

namespace vendra::python {
namespace {

PyObject* signalFunction(const char* name)
{
    PyObject* const module = PyImport_ImportModule("_signal"); // built in
    if (!module)
        throw ErrorSet{};
    PyObject* const function = PyObject_GetAttrString(module, name);
    Py_DECREF(module);
    return function;
}

/// Of the language; looked up once, and kept to the end of the process.
PyObject* getHandler()
{
    static PyObject* const function = signalFunction("getsignal");
    return function;
}

Ref currentHandler()
{
    static PyObject* const number = PyLong_FromLong(SIGINT);
    return Ref::own(PyObject_CallOneArg(getHandler(), number));
}

} // namespace

InterruptHandler::InterruptHandler() : former_(currentHandler()) {}

InterruptHandler::~InterruptHandler()
{
    // Maybe on the way out of an error.
    PyObject* error[3];
    PyErr_Fetch(&error[0], &error[1], &error[2]);
    try {
        restore();
    } catch (const ErrorSet&) {
        PyErr_Clear(); // an interrupt that came too late
    }
    PyErr_Restore(error[0], error[1], error[2]);
}

void InterruptHandler::restore()
{
    if (currentHandler().get() == former_.get() || former_.get() == Py_None)
        return;
    const Ref set = Ref::own(signalFunction("signal"));
    Ref::own(PyObject_CallFunction(set.get(), "iO", SIGINT, former_.get()));
}

void removeDebuggersInterruptHandler(PyObject* support) noexcept
{
    static PyObject* const name = PyUnicode_InternFromString("bdb");
    if (!PyDict_GetItemWithError(PyImport_GetModuleDict(), name))
        return PyErr_Clear();
    PyObject* const done = PyObject_CallMethod(support, "remove_debuggers_handler", nullptr);
    Py_XDECREF(done);
    if (!done)
        PyErr_Clear();
}

} // namespace vendra::python
