#include <algorithm>
#include <cstdint>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "vendra/python/Conversion.h"

namespace vendra::python {
namespace {

Ref convert(const vxArray* array, std::size_t depth);

Ref none() { return Ref::share(Py_None); }

Ref textFromUnits(const char16_t* units, std::size_t count)
{
    int littleEndian = -1;
    return Ref::own(PyUnicode_DecodeUTF16(reinterpret_cast<const char*>(units), static_cast<Py_ssize_t>(count) * 2,
                                          "surrogatepass", &littleEndian));
}

Ref fromElement(matrix::Logical value) { return Ref::own(PyBool_FromLong(value.value)); }

template <class T>
requires std::is_arithmetic_v<T> Ref fromElement(T value)
{
    if constexpr (std::is_floating_point_v<T>)
        return Ref::own(PyFloat_FromDouble(value));
    else if constexpr (std::is_signed_v<T>)
        return Ref::own(PyLong_FromLongLong(value));
    else
        return Ref::own(PyLong_FromUnsignedLongLong(value));
}

/// A list of what `make` makes of 0 … count-1.
template <class Make>
Ref makeList(std::size_t count, Make make)
{
    Ref list = Ref::own(PyList_New(static_cast<Py_ssize_t>(count)));
    for (std::size_t i = 0; i < count; ++i)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), make(i).release());
    return list;
}

/// Lists nested as the sizes say, the first index outermost; `make` makes the element at an offset in memory order.
template <class Make>
Ref makeNested(const matrix::Dimensions& sizes, std::size_t dimension, std::size_t offset, std::size_t stride,
               const Make& make)
{
    return makeList(sizes[dimension], [&](std::size_t i) {
        std::size_t place = offset + i * stride;
        if (dimension + 1 == sizes.size())
            return make(place);
        return makeNested(sizes, dimension + 1, place, stride * sizes[dimension], make);
    });
}

/// How many lists of lists an array without elements makes is up to the sizes in front of the zero.
void checkEmptyLists(const matrix::Dimensions& sizes)
{
    std::size_t lists = 1;
    for (std::size_t d = 0; d < sizes.size() && sizes[d] != 0; ++d)
        if (__builtin_mul_overflow(lists, sizes[d], &lists) || lists > kMaxValues) {
            PyErr_Format(PyExc_ValueError, "an array without elements makes more than %zu lists", kMaxValues);
            throw ErrorSet{};
        }
}

template <class Make>
Ref makeLists(const matrix::Dimensions& sizes, std::size_t count, bool columnIsFlat, const Make& make)
{
    if (count == 0)
        checkEmptyLists(sizes);
    bool flat = sizes.size() == 2 && (sizes[0] == 1 || (columnIsFlat && sizes[1] == 1) || count == 0);
    return flat ? makeList(count, make) : makeNested(sizes, 0, 0, 1, make);
}

/// An ndarray of the loaded numpy, or nothing.
template <class T>
Ref makeNdarray(const vxArray& array, const std::vector<T>& elements)
{
    PyObject* numpy = PyDict_GetItemString(PyImport_GetModuleDict(), "numpy"); // borrowed
    if (!numpy)
        return {};
    const char* name = matrix::className(array.class_id());
    if (std::is_same_v<T, matrix::Logical>)
        name = "bool";
    std::size_t size = elements.size() * sizeof(T);
    Ref memory = Ref::own(
        PyByteArray_FromStringAndSize(reinterpret_cast<const char*>(elements.data()), static_cast<Py_ssize_t>(size)));
    Ref flat = Ref::own(PyObject_CallMethod(numpy, "frombuffer", "Os", memory.get(), name));
    if (array.is_row())
        return flat;
    const auto& sizes = array.dimensions();
    Ref shape = makeList(sizes.size(), [&](std::size_t d) { return fromElement(std::uint64_t{sizes[d]}); });
    Ref reshape = Ref::own(PyObject_GetAttrString(flat.get(), "reshape"));
    Ref arguments = Ref::own(Py_BuildValue("(O)", shape.get()));
    Ref order = Ref::own(Py_BuildValue("{ss}", "order", "F"));
    return Ref::own(PyObject_Call(reshape.get(), arguments.get(), order.get()));
}

class Visitor
{
public:
    Visitor(const vxArray& array, std::size_t depth) : array_(array), sizes_(array.dimensions()), depth_(depth) {}

    Ref operator()(const std::vector<char16_t>& units) const
    {
        if (array_.is_row())
            return textFromUnits(units.data(), units.size());
        if (units.empty())
            checkEmptyLists(sizes_);
        std::size_t rows = sizes_[0];
        std::size_t columns = rows == 0 ? 0 : units.size() / rows;
        std::u16string row(columns, u'\0');
        return makeList(rows, [&](std::size_t r) {
            for (std::size_t c = 0; c < columns; ++c)
                row[c] = units[r + c * rows];
            return textFromUnits(row.data(), columns);
        });
    }

    Ref operator()(const std::vector<matrix::ArrayPtr>& cells) const
    {
        return makeLists(sizes_, cells.size(), true,
                         [&](std::size_t i) { return convert(cells[i].get(), depth_ + 1); });
    }

    Ref operator()(const matrix::StructData& data) const
    {
        std::size_t width = data.fields.size();
        auto makeDict = [&](std::size_t element) {
            Ref dict = Ref::own(PyDict_New());
            for (std::size_t f = 0; f < width; ++f) {
                Ref key = makeText(data.fields[f]);
                Ref value = convert(data.values[element * width + f].get(), depth_ + 1);
                check(PyDict_SetItem(dict.get(), key.get(), value.get()));
            }
            return dict;
        };
        std::size_t count = array_.get_number_of_elements();
        return count == 1 ? makeDict(0) : makeList(count, makeDict);
    }

    Ref operator()(const matrix::TypedData& data) const
    {
        Ref kind = makeText(data.kind);
        Ref content = convert(data.value.get(), depth_ + 1);
        return callForms("value_of", {kind.get(), content.get()});
    }

    template <class T>
    Ref operator()(const std::vector<T>& elements) const
    {
        if (elements.size() == 1)
            return fromElement(elements[0]);
        if constexpr (std::is_same_v<T, double>)
            if (sizes_.size() == 2 && sizes_[0] == 0 && sizes_[1] == 0)
                return none();
        if constexpr (std::is_same_v<T, std::uint8_t>)
            if (array_.is_row())
                return Ref::own(PyBytes_FromStringAndSize(reinterpret_cast<const char*>(elements.data()),
                                                          static_cast<Py_ssize_t>(elements.size())));
        if (Ref ndarray = makeNdarray(array_, elements))
            return ndarray;
        return makeLists(sizes_, elements.size(), false, [&](std::size_t i) { return fromElement(elements[i]); });
    }

private:
    const vxArray& array_;
    const matrix::Dimensions& sizes_;
    std::size_t depth_;
};

Ref convert(const vxArray* array, std::size_t depth)
{
    if (!array)
        return none();
    if (depth > kMaxDepth) {
        PyErr_Format(PyExc_ValueError, "arrays nest deeper than %zu levels", kMaxDepth);
        throw ErrorSet{};
    }
    return std::visit(Visitor(*array, depth), array->data());
}

} // namespace

Ref toObject(const vxArray* array)
try {
    return convert(array, 0);
} catch (const std::exception&) {
    setErrorFromCurrentException();
    throw ErrorSet{};
}

} // namespace vendra::python
