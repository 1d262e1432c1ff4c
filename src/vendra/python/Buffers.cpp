#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include "vendra/python/Conversion.h"

static_assert(std::endian::native == std::endian::little, "Byte orders are told apart as on little-endian machines");

namespace vendra::python {
namespace {

class View
{
public:
    explicit View(PyObject* value) { check(PyObject_GetBuffer(value, &buffer_, PyBUF_RECORDS_RO)); }
    ~View() { PyBuffer_Release(&buffer_); }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    const Py_buffer& operator*() const noexcept { return buffer_; }

private:
    Py_buffer buffer_{};
};

struct Half
{
    std::uint16_t bits;
};

template <class Out, class In>
Out convertElement(In value)
{
    if constexpr (std::is_same_v<In, Half>)
        return static_cast<Out>(PyFloat_Unpack2(reinterpret_cast<const char*>(&value), 1));
    else if constexpr (std::is_same_v<Out, matrix::Logical>)
        return {static_cast<std::uint8_t>(value != 0)};
    else
        return static_cast<Out>(value);
}

template <class In>
In load(const char* address, bool swapped)
{
    In value;
    std::memcpy(&value, address, sizeof value);
    if (swapped) {
        auto* bytes = reinterpret_cast<unsigned char*>(&value);
        std::reverse(bytes, bytes + sizeof value);
    }
    return value;
}

matrix::Dimensions sizesOf(const Py_buffer& buffer)
{
    matrix::Dimensions sizes(buffer.shape, buffer.shape + buffer.ndim);
    if (sizes.empty())
        return {1, 1};
    if (sizes.size() == 1)
        sizes.insert(sizes.begin(), 1);
    return sizes;
}

/// Walks the elements with the first index fastest.
template <class In, class Out = In>
matrix::ArrayPtr gather(const Py_buffer& buffer, bool swapped)
{
    matrix::Dimensions sizes = sizesOf(buffer);
    std::size_t count = matrix::countElements(sizes);
    std::vector<Out> elements;
    elements.reserve(count);
    const char* address = static_cast<const char*>(buffer.buf);
    std::vector<Py_ssize_t> index(static_cast<std::size_t>(buffer.ndim), 0);
    while (elements.size() < count) {
        elements.push_back(convertElement<Out>(load<In>(address, swapped)));
        for (std::size_t d = 0; d < index.size(); ++d) {
            address += buffer.strides[d];
            if (++index[d] < buffer.shape[d])
                break;
            address -= buffer.strides[d] * buffer.shape[d];
            index[d] = 0;
        }
    }
    return matrix::create(std::move(sizes), std::move(elements));
}

template <class One, class Two, class Four, class Eight>
matrix::ArrayPtr gatherInteger(const Py_buffer& buffer, bool swapped)
{
    switch (buffer.itemsize) {
    case 1:
        return gather<One>(buffer, swapped);
    case 2:
        return gather<Two>(buffer, swapped);
    case 4:
        return gather<Four>(buffer, swapped);
    case 8:
        return gather<Eight>(buffer, swapped);
    default:
        return nullptr;
    }
}

matrix::ArrayPtr gatherReal(const Py_buffer& buffer, bool swapped)
{
    switch (buffer.itemsize) {
    case 2:
        return gather<Half, float>(buffer, swapped);
    case 4:
        return gather<float>(buffer, swapped);
    case 8:
        return gather<double>(buffer, swapped);
    case sizeof(long double):
        return swapped ? nullptr : gather<long double, double>(buffer, swapped);
    default:
        return nullptr;
    }
}

/// Null where the format means no plain number.
matrix::ArrayPtr gatherFormat(const Py_buffer& buffer)
{
    std::string_view format = buffer.format ? buffer.format : "B";
    bool swapped = false;
    if (!format.empty() && std::string_view("@=<>!").find(format.front()) != std::string_view::npos) {
        swapped = format.front() == '>' || format.front() == '!';
        format.remove_prefix(1);
    }
    if (format.size() != 1)
        return nullptr;
    switch (format.front()) {
    case '?':
        return buffer.itemsize == 1 ? gather<std::uint8_t, matrix::Logical>(buffer, false) : nullptr;
    case 'b':
    case 'h':
    case 'i':
    case 'l':
    case 'q':
    case 'n':
        return gatherInteger<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(buffer, swapped);
    case 'c':
    case 'B':
    case 'H':
    case 'I':
    case 'L':
    case 'Q':
    case 'N':
        return gatherInteger<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(buffer, swapped);
    case 'e':
    case 'f':
    case 'd':
    case 'g':
        return gatherReal(buffer, swapped);
    default:
        return nullptr;
    }
}

} // namespace

matrix::ArrayPtr bufferToArray(PyObject* value)
{
    View view(value);
    if (auto array = gatherFormat(*view))
        return array;
    const char* format = (*view).format ? (*view).format : "B";
    if (std::strchr(format, 'Z'))
        PyErr_SetString(PyExc_TypeError, "complex values have no array form");
    else
        PyErr_Format(PyExc_TypeError, "elements of format '%s' (in a value of type '%s') have no array form", format,
                     Py_TYPE(value)->tp_name);
    throw ErrorSet{};
}

} // namespace vendra::python
