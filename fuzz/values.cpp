// Values of the embedded language there and back: to arrays, JSON, arrays and values again. The first byte says where
// the value comes from: a builder in the language (values_build.py), an exporter of buffers that leaves things out, or
// JSON.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "connector/json/ArrayJson.h"
#include "connector/json/JsonSerializer.h"
#include "connector/json/JsonText.h"
#include "vendra/python/Conversion.h"
#include "vendra/python/PythonHost.h"

using vendra::python::ErrorSet;
using vendra::python::Ref;

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
// The language and its libraries keep much of their memory to the very end.
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() { return 1; }
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; } // else no MemoryError comes
#endif
#endif

namespace {

void require(bool holds, const char* what, const std::string& text)
{
    if (holds)
        return;
    std::fprintf(stderr, "%s: %.2000s\n", what, text.c_str());
    std::abort();
}

/// Ends with the process, and so does the language.
vendra::python::PythonHost& host()
{
    static auto* const made = [] {
        ::setenv("PYTHONMALLOC", "malloc", 1); // so that sanitizers see what is read beyond a value's end
        auto* host = new vendra::python::PythonHost({{"fuzz"}, false});
        std::ifstream file(VALUES_BUILD);
        const std::string code{std::istreambuf_iterator<char>(file), {}};
        if (host->runSource(code, "values_build.py").status != 0)
            std::abort();
        return host;
    }();
    return *made;
}

Ref callMain(const char* name, PyObject* first, PyObject* second = nullptr)
{
    PyObject* main = PyImport_AddModule("__main__");
    Ref function = Ref::own(PyObject_GetAttrString(main, name));
    return Ref::own(PyObject_CallFunctionObjArgs(function.get(), first, second, nullptr));
}

/// What an exporter says of its memory; each part may be left out.
struct Said
{
    std::vector<char> memory;
    std::vector<Py_ssize_t> shape;
    std::vector<Py_ssize_t> strides;
    std::string format;
    Py_buffer buffer{};
};

struct Exporter
{
    PyObject_HEAD Said* said;
};

int exportBuffer(PyObject* object, Py_buffer* buffer, int)
{
    *buffer = reinterpret_cast<Exporter*>(object)->said->buffer;
    buffer->obj = object;
    Py_INCREF(object);
    return 0;
}

void freeExporter(PyObject* object)
{
    PyTypeObject* const type = Py_TYPE(object);
    delete reinterpret_cast<Exporter*>(object)->said;
    type->tp_free(object);
    Py_DECREF(type);
}

Ref makeExporter(std::unique_ptr<Said> said)
{
    static PyType_Slot slots[] = {{Py_bf_getbuffer, reinterpret_cast<void*>(exportBuffer)},
                                  {Py_tp_dealloc, reinterpret_cast<void*>(freeExporter)},
                                  {0, nullptr}};
    static PyType_Spec spec = {"fuzz.Exporter", sizeof(Exporter), 0, Py_TPFLAGS_DEFAULT, slots};
    static PyObject* const type = Ref::own(PyType_FromSpec(&spec)).release();
    Ref exporter = Ref::own(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(type), 0));
    reinterpret_cast<Exporter*>(exporter.get())->said = said.release();
    return exporter;
}

/// The memory is no larger than its sizes and strides reach, so that reading elsewhere is seen.
Ref exporterOf(const std::uint8_t* bytes, std::size_t size)
{
    std::size_t at = 0;
    const auto next = [&]() -> int { return at < size ? bytes[at++] : 0; };
    auto made = std::make_unique<Said>();
    Py_buffer& said = made->buffer;

    const int wrong = next(); // which parts are left out, and which contradict the others
    constexpr Py_ssize_t kItemSizes[] = {1, 2, 4, 8, 16, 32, 3, 0};
    said.itemsize = kItemSizes[next() % 8];
    for (int i = next() % 3; i > 0; --i)
        made->format += "bBhHiIlLqQnNefdgZc?@=<>!^xT{s1"[next() % 30];
    said.ndim = next() % 5;
    Py_ssize_t lowest = 0;
    Py_ssize_t highest = said.itemsize;
    Py_ssize_t count = 1;
    for (int d = 0; d < said.ndim; ++d) {
        made->shape.push_back(next() % 4);
        made->strides.push_back(next() % 33 - 16);
        count *= made->shape.back();
        (made->strides.back() < 0 ? lowest : highest) +=
            made->strides.back() * std::max<Py_ssize_t>(made->shape.back() - 1, 0);
    }
    said.len = count * said.itemsize;
    if ((wrong & 1) || (wrong & 2)) { // then it is read from the beginning to the length
        lowest = 0;
        highest = said.len;
    }
    said.strides = wrong & 1 || wrong & 2 ? nullptr : made->strides.data();
    said.shape = wrong & 2 ? nullptr : made->shape.data();
    said.format = wrong & 4 ? nullptr : made->format.data();
    made->memory.resize(static_cast<std::size_t>(highest - lowest));
    for (char& byte : made->memory)
        byte = static_cast<char>(next());
    said.buf = wrong & 8 ? nullptr : made->memory.data() - lowest;
    if ((wrong & 16) && (said.shape || said.ndim != 1)) // without sizes the length is all there is to believe
        said.len += next() + 1;
    if ((wrong & 32) && said.ndim > 0)
        made->shape[0] = next() % 2 ? -1 : PY_SSIZE_T_MAX / 2;
    return makeExporter(std::move(made));
}

std::string textOfError()
{
    Ref error = vendra::python::takeError();
    if (!error)
        return "no error was set";
    Ref text = Ref::own(PyObject_Repr(error.get()));
    const bool known = PyErr_GivenExceptionMatches(error.get(), PyExc_TypeError) ||
                       PyErr_GivenExceptionMatches(error.get(), PyExc_ValueError) ||
                       PyErr_GivenExceptionMatches(error.get(), PyExc_BufferError);
    return known ? "" : vendra::python::textOf(text.get());
}

matrix::ArrayPtr throughJson(const vxArray& array, std::string& text)
{
    connector::json::Limits limits;
    limits.depth = connector::json::kMaxWriteDepth;
    text = connector::json::write(connector::json::toJson(array));
    return connector::json::fromJson(connector::json::parse(text, limits));
}

/// Sets have no order.
bool sameText(std::string left, std::string right)
{
    if (left.find("set\"") != std::string::npos) {
        std::sort(left.begin(), left.end());
        std::sort(right.begin(), right.end());
    }
    return left == right;
}

void check(PyObject* value)
{
    matrix::ArrayPtr array;
    try {
        array = vendra::python::toArray(value);
    } catch (const ErrorSet&) {
        const std::string error = textOfError();
        require(error.empty(), "another error than that there is no form", error);
        return;
    }
    std::string text;
    const auto read = throughJson(*array, text);
    require(matrix::identical(*array, *read), "JSON told something else", text);
    Ref back;
    try {
        back = vendra::python::toObject(read.get());
    } catch (const ErrorSet&) {
        const std::string error = textOfError();
        require(error.empty(), "another error than that it is no value", error + " " + text);
        return;
    }
    try {
        Ref different = callMain("differs", value, back.get());
        require(different.get() != Py_True, "another value came back", text);
    } catch (const ErrorSet&) {
        PyErr_Clear(); // a text that cannot be made
    }
    std::string first;
    std::string second;
    try {
        throughJson(*vendra::python::toArray(back.get()), first);
        Ref again = vendra::python::toObject(vendra::python::toArray(back.get()).get());
        throughJson(*vendra::python::toArray(again.get()), second);
    } catch (const ErrorSet&) {
        const std::string error = textOfError();
        require(error.empty(), "another error on the second way", error + " " + text);
        return;
    }
    require(sameText(first, second), "the second way told something else", first + " " + second);
}

void checkJson(const std::string& text)
{
    matrix::ArrayPtr array;
    try {
        array = connector::json::fromJson(connector::json::parse(text));
    } catch (const connector::json::JsonError&) {
        return;
    }
    Ref value;
    try {
        value = vendra::python::toObject(array.get());
    } catch (const ErrorSet&) {
        const std::string error = textOfError();
        require(error.empty(), "another error than that it is no value", error);
        return;
    }
    check(value.get());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    if (size == 0)
        return 0;
    host().withInterpreter([&](rqe::Interpreter&) {
        const std::uint8_t source = *bytes % 4;
        if (source == 1) {
            checkJson(std::string(reinterpret_cast<const char*>(bytes) + 1, size - 1));
            return;
        }
        Ref value;
        try {
            if (source == 0) {
                value = exporterOf(bytes + 1, size - 1);
            } else {
                Ref data = Ref::own(PyBytes_FromStringAndSize(reinterpret_cast<const char*>(bytes) + 1,
                                                              static_cast<Py_ssize_t>(size) - 1));
                value = callMain("build", data.get());
            }
        } catch (const ErrorSet&) {
            PyErr_Clear(); // the bytes make no value
            return;
        }
        check(value.get());
    });
    return 0;
}
