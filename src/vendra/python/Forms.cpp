// The part of conversions that is written in the language.

#include "vendra/python/Conversion.h"

namespace vendra::python {
namespace {

constexpr const char* kForms = "vendra.forms";

/// What belongs to this interpreter and ends with it; borrowed, null when there is none.
PyObject* interpreterNames() { return PyInterpreterState_GetDict(PyInterpreterState_Get()); }

} // namespace

void setForms(PyObject* support)
{
    PyObject* names = interpreterNames();
    check(names ? PyDict_SetItemString(names, kForms, support) : -1);
}

void clearForms() noexcept
{
    PyObject* names = interpreterNames();
    if (names && PyDict_DelItemString(names, kForms) != 0)
        PyErr_Clear(); // was not set
}

Ref callForms(const char* name, std::initializer_list<PyObject*> arguments)
{
    PyObject* names = interpreterNames();
    PyObject* support = names ? PyDict_GetItemString(names, kForms) : nullptr; // borrowed
    if (!support) {
        PyErr_SetString(PyExc_SystemError, "the host's own part in the language is not loaded");
        throw ErrorSet{};
    }
    Ref function = Ref::own(PyObject_GetAttrString(support, name));
    return Ref::own(PyObject_Vectorcall(function.get(), arguments.begin(), arguments.size(), nullptr));
}

} // namespace vendra::python
