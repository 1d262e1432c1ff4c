#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "vendra/python/Conversion.h"

namespace vendra::python {
namespace {

/// An int of more bits has more than 4300 decimal digits: these take their time, and the language refuses them.
constexpr std::size_t kMaxIntegerBits = 14'284;

[[noreturn]] void fail(const std::string& message)
{
    PyErr_SetString(PyExc_ValueError, message.c_str());
    throw ErrorSet{};
}

/// Two characters that are the halves of one in UTF-16 cannot be told from that one.
template <class Character>
void refuseSplitCharacters(const Character* characters, std::size_t length)
{
    const auto isSplit = [](Character first, Character second) {
        return first >= 0xD800 && first < 0xDC00 && second >= 0xDC00 && second < 0xE000;
    };
    if (std::adjacent_find(characters, characters + length, isSplit) != characters + length)
        fail("a str with the halves of a character one after the other has no array form");
}

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
        refuseSplitCharacters(characters, length);
        units.assign(characters, characters + length);
        break;
    }
    default: {
        const auto* characters = static_cast<const Py_UCS4*>(data);
        refuseSplitCharacters(characters, length);
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

matrix::ArrayPtr largeInteger(PyObject* number)
{
    const std::size_t bits = _PyLong_NumBits(number);
    if (bits > kMaxIntegerBits)
        fail("an int of " + std::to_string(bits) + " bits is too long to be told");
    Ref digits = Ref::own(PyNumber_ToBase(number, 10));
    return matrix::createTyped("integer", matrix::create(std::string_view(textOf(digits.get()))));
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
    return largeInteger(number);
}

matrix::ArrayPtr bytesToArray(const char* bytes, Py_ssize_t size)
{
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes);
    auto count = static_cast<std::size_t>(size);
    auto row = matrix::create({1, count}, std::vector<std::uint8_t>(data, data + count));
    return count == 1 ? matrix::createTyped("bytes", std::move(row)) : std::move(row); // alone it is a number
}

matrix::ArrayPtr complexToArray(PyObject* value)
{
    const Py_complex number = PyComplex_AsCComplex(value);
    std::vector<matrix::ArrayPtr> parts;
    parts.push_back(matrix::createScalar(number.real));
    parts.push_back(matrix::createScalar(number.imag));
    return matrix::createTyped("complex", matrix::createCellRow(std::move(parts)));
}

/// (key, value) of a dict in its order, as a list of its own: nothing that is done with them changes it.
Ref itemsOf(PyObject* dict)
{
    if (!PyODict_Check(dict))
        return Ref::own(PyDict_Items(dict));
    // Has an order that the dict it extends does not know.
    Ref items = Ref::own(PyObject_CallMethod(reinterpret_cast<PyObject*>(&PyODict_Type), "items", "O", dict));
    return Ref::own(PySequence_List(items.get()));
}

/// The keys of items as names of fields; nothing where some cannot be: what is no text, no Unicode, or twice the same.
std::optional<std::vector<std::string>> fieldsOf(PyObject* items)
{
    std::vector<std::string> fields;
    fields.reserve(static_cast<std::size_t>(PyList_GET_SIZE(items)));
    bool distinct = true;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items); ++i) {
        PyObject* key = PyTuple_GET_ITEM(PyList_GET_ITEM(items, i), 0);
        if (!PyUnicode_Check(key))
            return std::nullopt;
        distinct = distinct && PyUnicode_CheckExact(key); // a subclass may say what equals it
        Py_ssize_t size = 0;
        const char* bytes = PyUnicode_AsUTF8AndSize(key, &size);
        if (!bytes) {
            if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError))
                throw ErrorSet{};
            PyErr_Clear();
            return std::nullopt;
        }
        fields.emplace_back(bytes, static_cast<std::size_t>(size));
    }
    if (!distinct && std::unordered_set<std::string_view>(fields.begin(), fields.end()).size() != fields.size())
        return std::nullopt;
    return fields;
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
            return text(value);
        if (PyBytes_Check(value))
            return counted(PyBytes_GET_SIZE(value),
                           [&] { return bytesToArray(PyBytes_AS_STRING(value), PyBytes_GET_SIZE(value)); });
        if (PyByteArray_Check(value))
            return counted(PyByteArray_GET_SIZE(value),
                           [&] { return bytesToArray(PyByteArray_AS_STRING(value), PyByteArray_GET_SIZE(value)); });
        if (PyList_Check(value) || PyTuple_Check(value))
            return sequence(value);
        if (PyDict_Check(value))
            return dictionary(value);
        if (PyComplex_Check(value))
            return complexToArray(value);
        return other(value);
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

    matrix::ArrayPtr element(PyObject* value)
    {
        if (++values_ > kMaxValues)
            fail("a container holds more than " + std::to_string(kMaxValues) + " values");
        if (values_ % 65536 == 0)
            check(PyErr_CheckSignals());
        return convert(value);
    }

    matrix::ArrayPtr text(PyObject* value)
    {
        characters_ += static_cast<std::size_t>(PyUnicode_GET_LENGTH(value));
        if (characters_ > kMaxCharacters)
            fail("a value holds texts of more than " + std::to_string(kMaxCharacters) + " characters");
        return matrix::create(std::u16string_view(unitsOf(value)));
    }

    template <class Make>
    matrix::ArrayPtr counted(Py_ssize_t elements, Make make)
    {
        elements_ += static_cast<std::size_t>(elements);
        if (elements_ > kMaxElements)
            fail("a value holds arrays of more than " + std::to_string(kMaxElements) + " elements");
        return make();
    }

    matrix::ArrayPtr buffer(PyObject* value)
    {
        auto array = bufferToArray(value);
        return counted(static_cast<Py_ssize_t>(array->get_number_of_elements()), [&] { return std::move(array); });
    }

    std::vector<matrix::ArrayPtr> elementsOf(PyObject* sequence)
    {
        std::vector<matrix::ArrayPtr> elements;
        elements.reserve(static_cast<std::size_t>(PySequence_Fast_GET_SIZE(sequence)));
        // The size is asked again each time: an element's own code may change the list.
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(sequence); ++i) {
            Ref item = Ref::share(PySequence_Fast_GET_ITEM(sequence, i));
            elements.push_back(element(item.get()));
        }
        return elements;
    }

    matrix::ArrayPtr sequence(PyObject* value)
    {
        Level level(*this, value);
        return matrix::createCellRow(elementsOf(value));
    }

    matrix::ArrayPtr dictionary(PyObject* value)
    {
        Level level(*this, value);
        Ref items = itemsOf(value);
        auto names = fieldsOf(items.get());
        if (!names)
            return matrix::createTyped("dict", matrix::createCellRow(elementsOf(items.get())));
        matrix::StructData data{std::move(*names), {}};
        data.values.reserve(data.fields.size());
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i)
            data.values.push_back(element(PyTuple_GET_ITEM(PyList_GET_ITEM(items.get(), i), 1)));
        return matrix::create({1, 1}, std::move(data));
    }

    /// Values in the sizes of an array.
    matrix::ArrayPtr cells(PyObject* items, PyObject* sizes)
    {
        matrix::Dimensions dimensions;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(sizes); ++i) {
            const std::size_t size = PyLong_AsSize_t(PyList_GET_ITEM(sizes, i));
            if (size == static_cast<std::size_t>(-1) && PyErr_Occurred())
                throw ErrorSet{};
            dimensions.push_back(size);
        }
        if (dimensions.size() == 1)
            dimensions.insert(dimensions.begin(), 1);
        return matrix::create(std::move(dimensions), elementsOf(items));
    }

    matrix::ArrayPtr other(PyObject* value)
    {
        Ref form = callForms("form_of", {value});
        if (form.get() == Py_None)
            return unknown(value);
        Level level(*this, value);
        const std::string what = textOf(PyTuple_GET_ITEM(form.get(), 0));
        PyObject* content = PyTuple_GET_ITEM(form.get(), 1);
        if (what == "buffer")
            return buffer(content);
        if (what == "cells")
            return cells(content, PyTuple_GET_ITEM(form.get(), 2));
        auto told = element(content);
        return what == "typed" ? matrix::createTyped(textOf(PyTuple_GET_ITEM(form.get(), 2)), std::move(told))
                               : std::move(told);
    }

    matrix::ArrayPtr unknown(PyObject* value)
    {
        if (PyObject_CheckBuffer(value))
            return buffer(value);
        if (PyIndex_Check(value)) {
            Ref index = Ref::own(PyNumber_Index(value));
            return integerToArray(index.get());
        }
        PyErr_Format(PyExc_TypeError, "a value of type '%s' has no array form", Py_TYPE(value)->tp_name);
        throw ErrorSet{};
    }

    std::vector<PyObject*> path_;
    std::size_t values_ = 0;
    std::size_t elements_ = 0;
    std::size_t characters_ = 0;
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
