#include "vendra/python/Object.h"

#include <new>
#include <stdexcept>
#include <system_error>

#include "platform/fl/i18n.h"

namespace vendra::python {

Ref makeText(std::string_view utf8)
{
    return Ref::own(PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "replace"));
}

std::string textOf(PyObject* text)
{
    Py_ssize_t size = 0;
    if (const char* bytes = PyUnicode_AsUTF8AndSize(text, &size))
        return {bytes, static_cast<std::size_t>(size)};
    if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError))
        throw ErrorSet{};
    PyErr_Clear();
    Ref encoded = Ref::own(PyUnicode_AsEncodedString(text, "utf-16-le", "surrogatepass"));
    const auto* units = reinterpret_cast<const char16_t*>(PyBytes_AS_STRING(encoded.get()));
    return fl::i18n::utf16ToUtf8({units, static_cast<std::size_t>(PyBytes_GET_SIZE(encoded.get())) / 2});
}

std::vector<std::string> textsOf(PyObject* sequence)
{
    Ref items = Ref::own(PySequence_Fast(sequence, "a list of texts is needed"));
    std::vector<std::string> texts;
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(items.get()); ++i)
        texts.push_back(textOf(PySequence_Fast_GET_ITEM(items.get(), i)));
    return texts;
}

Ref takeError()
{
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* trace = nullptr;
    PyErr_Fetch(&type, &value, &trace);
    PyErr_NormalizeException(&type, &value, &trace);
    if (value && trace)
        PyException_SetTraceback(value, trace);
    Py_XDECREF(type);
    Py_XDECREF(trace);
    return value ? Ref::own(value) : Ref{};
}

namespace {

void setError(PyObject* type, std::string_view message)
{
    PyObject* text = PyUnicode_DecodeUTF8(message.data(), static_cast<Py_ssize_t>(message.size()), "replace");
    if (!text)
        return; // the indicator tells of that failure
    PyErr_SetObject(type, text);
    Py_DECREF(text);
}

void setSystemError(const std::system_error& error)
{
    PyObject* arguments = Py_BuildValue("(is)", error.code().value(), error.what());
    if (!arguments)
        return;
    PyErr_SetObject(PyExc_OSError, arguments);
    Py_DECREF(arguments);
}

} // namespace

void setErrorFromCurrentException() noexcept
try {
    throw;
} catch (const ErrorSet&) {
    if (!PyErr_Occurred())
        PyErr_SetString(PyExc_SystemError, "an error was announced without being set");
} catch (const std::bad_alloc&) {
    PyErr_NoMemory();
} catch (const std::invalid_argument& error) {
    setError(PyExc_ValueError, error.what());
} catch (const std::length_error& error) {
    setError(PyExc_ValueError, error.what());
} catch (const std::system_error& error) {
    setSystemError(error);
} catch (const std::exception& error) {
    setError(PyExc_RuntimeError, error.what());
} catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "an error of an unknown kind");
}

} // namespace vendra::python
