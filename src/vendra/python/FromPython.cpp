#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "vendra/python/Conversion.h"

namespace vendra::python {
namespace {

std::u16string unitsOf(PyObject* text)
{
    check(PyUnicode_READY(text));
    auto length = static_cast<std::size_t>(PyUnicode_GET_LENGTH(text));
    const void* data = PyUnicode_DATA(text);
    std::u16string units;
    switch (PyUnicode_KIND(text)) {
    case PyUnicode_1BYTE_KIND: {
        const auto* characters = static_cast<const Py_UCS1*>(data);
        units.assign(characters, characters + length);
        break;
    }
    case PyUnicode_2BYTE_KIND: {
        const auto* characters = static_cast<const Py_UCS2*>(data);
        units.assign(characters, characters + length);
        break;
    }
    default: {
        const auto* characters = static_cast<const Py_UCS4*>(data);
        units.reserve(length + length / 8);
        for (std::size_t i = 0; i < length; ++i) {
            Py_UCS4 c = characters[i];
            if (c < 0x10000) {
                units += static_cast<char16_t>(c);
            } else {
                units += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
                units += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
            }
        }
    }
    }
    return units;
}

matrix::ArrayPtr integerToArray(PyObject* number)
{
    int overflow = 0;
    long long value = PyLong_AsLongLongAndOverflow(number, &overflow);
    if (value == -1 && PyErr_Occurred())
        throw ErrorSet{};
    if (overflow == 0)
        return matrix::createScalar(std::int64_t{value});
    if (overflow > 0) {
        unsigned long long big = PyLong_AsUnsignedLongLong(number);
        if (!PyErr_Occurred())
            return matrix::createScalar(std::uint64_t{big});
        PyErr_Clear();
    }
    // In base 16: the decimal form of a huge number takes its time, and the language refuses it beyond 4300 digits.
    Ref digits = Ref::own(PyNumber_ToBase(number, 16));
    std::string text = textOf(digits.get());
    if (text.size() > 40)
        text = text.substr(0, 37) + "...";
    PyErr_Format(PyExc_OverflowError, "%s does not fit into 64 bits", text.c_str());
    throw ErrorSet{};
}

matrix::ArrayPtr bytesToArray(const char* bytes, Py_ssize_t size)
{
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes);
    auto count = static_cast<std::size_t>(size);
    return matrix::create({1, count}, std::vector<std::uint8_t>(data, data + count));
}

class Builder
{
public:
    matrix::ArrayPtr convert(PyObject* value)
    {
        if (value == Py_None)
            return matrix::createEmpty();
        if (PyBool_Check(value))
            return matrix::createScalar(value == Py_True);
        if (PyLong_Check(value))
            return integerToArray(value);
        if (PyFloat_Check(value))
            return matrix::createScalar(PyFloat_AS_DOUBLE(value));
        if (PyUnicode_Check(value))
            return matrix::create(std::u16string_view(unitsOf(value)));
        if (PyBytes_Check(value))
            return bytesToArray(PyBytes_AS_STRING(value), PyBytes_GET_SIZE(value));
        if (PyByteArray_Check(value))
            return bytesToArray(PyByteArray_AS_STRING(value), PyByteArray_GET_SIZE(value));
        if (PyList_Check(value) || PyTuple_Check(value))
            return sequence(value);
        if (PyDict_Check(value))
            return dictionary(value);
        if (PyComplex_Check(value)) {
            PyErr_SetString(PyExc_TypeError, "complex values have no array form");
            throw ErrorSet{};
        }
        if (PyObject_CheckBuffer(value))
            return bufferToArray(value);
        return number(value);
    }

private:
    /// Stands for one container on the way down.
    class Level
    {
    public:
        Level(Builder& builder, PyObject* container) : builder_(builder)
        {
            auto& path = builder.path_;
            if (std::find(path.begin(), path.end(), container) != path.end())
                fail("a container that holds itself has no array form");
            if (path.size() >= kMaxDepth)
                fail("containers nest deeper than " + std::to_string(kMaxDepth) + " levels");
            path.push_back(container);
        }
        ~Level() { builder_.path_.pop_back(); }
        Level(const Level&) = delete;
        Level& operator=(const Level&) = delete;

    private:
        Builder& builder_;
    };

    [[noreturn]] static void fail(const std::string& message)
    {
        PyErr_SetString(PyExc_ValueError, message.c_str());
        throw ErrorSet{};
    }

    matrix::ArrayPtr element(PyObject* value)
    {
        if (++values_ > kMaxValues)
            fail("a container holds more than " + std::to_string(kMaxValues) + " values");
        if (values_ % 65536 == 0)
            check(PyErr_CheckSignals());
        return convert(value);
    }

    matrix::ArrayPtr sequence(PyObject* value)
    {
        Level level(*this, value);
        std::vector<matrix::ArrayPtr> elements;
        elements.reserve(static_cast<std::size_t>(PySequence_Fast_GET_SIZE(value)));
        // The size is asked again each time: an element's own code may change the list.
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(value); ++i) {
            Ref item = Ref::share(PySequence_Fast_GET_ITEM(value, i));
            elements.push_back(element(item.get()));
        }
        return matrix::createCellRow(std::move(elements));
    }

    matrix::ArrayPtr dictionary(PyObject* value)
    {
        Level level(*this, value);
        Ref items = Ref::own(PyDict_Items(value)); // a snapshot: an element's own code may change the dict
        std::vector<std::pair<std::string, matrix::ArrayPtr>> fields;
        fields.reserve(static_cast<std::size_t>(PyList_GET_SIZE(items.get())));
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
            PyObject* item = PyList_GET_ITEM(items.get(), i);
            PyObject* key = PyTuple_GET_ITEM(item, 0);
            if (!PyUnicode_Check(key)) {
                PyErr_Format(PyExc_TypeError, "the dict key %R is no str, so it can name no field", key);
                throw ErrorSet{};
            }
            fields.emplace_back(textOf(key), element(PyTuple_GET_ITEM(item, 1)));
        }
        return matrix::createStruct(std::move(fields));
    }

    static matrix::ArrayPtr number(PyObject* value)
    {
        if (PyIndex_Check(value)) {
            Ref index = Ref::own(PyNumber_Index(value));
            return integerToArray(index.get());
        }
        const PyNumberMethods* methods = Py_TYPE(value)->tp_as_number;
        if (methods && methods->nb_float) {
            double real = PyFloat_AsDouble(value);
            if (real == -1.0 && PyErr_Occurred())
                throw ErrorSet{};
            return matrix::createScalar(real);
        }
        PyErr_Format(PyExc_TypeError, "a value of type '%s' has no array form", Py_TYPE(value)->tp_name);
        throw ErrorSet{};
    }

    std::vector<PyObject*> path_;
    std::size_t values_ = 0;
};

} // namespace

matrix::ArrayPtr toArray(PyObject* value)
try {
    return Builder().convert(value);
} catch (const std::exception&) {
    setErrorFromCurrentException();
    throw ErrorSet{};
}

} // namespace vendra::python
