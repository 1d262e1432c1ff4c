#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vendra::python {

/// Thrown while the language's own error indicator is set; whoever catches it takes the error or passes it on.
struct ErrorSet
{};

/// Owner of one reference, or of none. Needs the language's lock for all but moving.
class Ref
{
public:
    Ref() = default;
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref& operator=(Ref&& other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    ~Ref() { Py_XDECREF(object_); }

    /// Takes over a new reference; throws ErrorSet for null.
    static Ref own(PyObject* object)
    {
        if (!object)
            throw ErrorSet{};
        return Ref(object);
    }
    /// Adds a reference; null stays null.
    static Ref share(PyObject* object)
    {
        Py_XINCREF(object);
        return Ref(object);
    }

    PyObject* get() const noexcept { return object_; }
    PyObject* release() noexcept { return std::exchange(object_, nullptr); }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    explicit Ref(PyObject* object) noexcept : object_(object) {}
    PyObject* object_ = nullptr;
};

/// Throws ErrorSet for the -1 by which the language's C functions say so.
inline void check(int result)
{
    if (result < 0)
        throw ErrorSet{};
}

/// A str from UTF-8; what is not UTF-8 becomes U+FFFD.
Ref makeText(std::string_view utf8);

/// The UTF-8 of a str; an unpaired surrogate becomes U+FFFD. ErrorSet (TypeError) for other objects.
std::string textOf(PyObject* text);

/// Those of a list or tuple of str. ErrorSet as textOf, also for what is neither.
std::vector<std::string> textsOf(PyObject* sequence);

/// Calls `write` with the UTF-8 of a str, without a copy where the str has it.
template <class Write>
void withText(PyObject* text, Write write)
{
    if (PyUnicode_Check(text) && PyUnicode_IS_COMPACT_ASCII(text)) {
        write(std::string_view(static_cast<const char*>(PyUnicode_DATA(text)),
                               static_cast<std::size_t>(PyUnicode_GET_LENGTH(text))));
        return;
    }
    Py_ssize_t size = 0;
    if (const char* bytes = PyUnicode_AsUTF8AndSize(text, &size)) {
        write(std::string_view(bytes, static_cast<std::size_t>(size)));
        return;
    }
    PyErr_Clear();
    write(std::string_view(textOf(text)));
}

/// Takes the error out of the indicator: the exception, its traceback attached.
Ref takeError();

/// Sets the indicator for the C++ exception that is being handled, by its type: invalid_argument and length_error are
/// ValueError, bad_alloc MemoryError, system_error OSError, all others RuntimeError. ErrorSet leaves the indicator as
/// it is.
void setErrorFromCurrentException() noexcept;

} // namespace vendra::python
