#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include "vendra/python/Conversion.h"

static_assert(std::endian::native == std::endian::little, "Byte orders are told apart as on little-endian machines");

namespace vendra::python {
namespace {

/// Asks for everything, also for memory behind pointers: what an exporter fills in by itself is told the same way.
class View
{
public:
    explicit View(PyObject* value) { check(PyObject_GetBuffer(value, &buffer_, PyBUF_FULL_RO)); }
    ~View() { PyBuffer_Release(&buffer_); }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    const Py_buffer& operator*() const noexcept { return buffer_; }

private:
    Py_buffer buffer_{};
};

template <class... Arguments>
[[noreturn]] void fail(PyObject* type, const char* format, Arguments... arguments)
{
    PyErr_Format(type, format, arguments...);
    throw ErrorSet{};
}

/// What an exporter says of its memory, completed where it may leave things out, and believed only where it is not
/// contradictory: a wrong stride would read anywhere.
class Layout
{
public:
    explicit Layout(const Py_buffer& buffer)
        : start_(static_cast<const char*>(buffer.buf)), suboffsets_(buffer.suboffsets)
    {
        setShape(buffer);
        for (const Py_ssize_t size : shape_)
            if (size < 0)
                fail(PyExc_ValueError, "a buffer with a size of %zd has no array form", size);
        count_ = matrix::countElements(sizes());
        if (count_ > kMaxElements)
            fail(PyExc_ValueError, "an array of %zu elements has no array form, only up to %zu", count_, kMaxElements);
        if (count_ * static_cast<std::size_t>(buffer.itemsize) != static_cast<std::size_t>(buffer.len) ||
            (count_ > 0 && !start_))
            fail(PyExc_ValueError, "a buffer of %zd bytes cannot be %zu elements of %zd bytes", buffer.len, count_,
                 buffer.itemsize);
        setStrides(buffer);
    }

    std::size_t count() const noexcept { return count_; }

    /// One of an array at least.
    matrix::Dimensions sizes() const
    {
        matrix::Dimensions sizes(shape_.begin(), shape_.end());
        while (sizes.size() < 2)
            sizes.insert(sizes.begin(), 1);
        return sizes;
    }

    /// Calls `visit` with the address of each element, the first index fastest.
    template <class Visit>
    void walk(Visit visit) const
    {
        if (count_ == 0)
            return;
        std::vector<Py_ssize_t> index(std::max<std::size_t>(shape_.size(), 1), 0);
        const Py_ssize_t length = shape_.empty() ? 1 : shape_[0];
        const Py_ssize_t step = shape_.empty() ? 0 : strides_[0];
        for (std::size_t row = count_ / static_cast<std::size_t>(length); row > 0; --row) {
            const char* address = addressOf(index);
            for (Py_ssize_t i = 0; i < length; ++i, address += step) {
                if (suboffsets_) {
                    index[0] = i;
                    address = addressOf(index);
                }
                visit(address);
            }
            index[0] = 0;
            for (std::size_t d = 1; d < shape_.size() && ++index[d] == shape_[d]; ++d)
                index[d] = 0;
        }
    }

private:
    void setShape(const Py_buffer& buffer)
    {
        if (buffer.ndim < 0 || buffer.ndim > PyBUF_MAX_NDIM)
            fail(PyExc_ValueError, "a buffer of %d dimensions has no array form", buffer.ndim);
        if (buffer.shape)
            shape_.assign(buffer.shape, buffer.shape + buffer.ndim);
        else if (buffer.ndim == 1)
            shape_ = {buffer.len / buffer.itemsize};
        else if (buffer.ndim > 1)
            fail(PyExc_ValueError, "a buffer of %d dimensions without their sizes has no array form", buffer.ndim);
    }

    /// Without strides the last index is the fastest, and nothing lies between.
    void setStrides(const Py_buffer& buffer)
    {
        if (buffer.strides) {
            strides_.assign(buffer.strides, buffer.strides + shape_.size());
            return;
        }
        strides_.resize(shape_.size());
        Py_ssize_t stride = buffer.itemsize;
        for (std::size_t d = shape_.size(); count_ > 0 && d-- > 0;) {
            strides_[d] = stride;
            stride *= shape_[d]; // at most the length that was compared
        }
    }

    const char* addressOf(const std::vector<Py_ssize_t>& index) const
    {
        const char* address = start_;
        for (std::size_t d = 0; d < shape_.size(); ++d) {
            address += strides_[d] * index[d];
            if (suboffsets_ && suboffsets_[d] >= 0) {
                const char* target = nullptr;
                std::memcpy(&target, address, sizeof target);
                address = target + suboffsets_[d];
            }
        }
        return address;
    }

    const char* start_;
    const Py_ssize_t* suboffsets_;
    std::vector<Py_ssize_t> shape_;
    std::vector<Py_ssize_t> strides_;
    std::size_t count_ = 0;
};

struct Half
{
    std::uint16_t bits;
};

template <class Out, class In>
Out convertElement(In value)
{
    if constexpr (std::is_same_v<In, Half>) {
        return static_cast<Out>(PyFloat_Unpack2(reinterpret_cast<const char*>(&value), 1));
    } else if constexpr (std::is_same_v<Out, matrix::Logical>) {
        return {static_cast<std::uint8_t>(value != 0)};
    } else {
        const auto converted = static_cast<Out>(value);
        if constexpr (std::is_same_v<In, long double>)
            if (!std::isnan(value) && static_cast<long double>(converted) != value)
                fail(PyExc_ValueError, "a long double that is no double has no array form");
        return converted;
    }
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

template <class In, class Out = In>
matrix::ArrayPtr gather(const Py_buffer& buffer, bool swapped)
{
    const Layout layout(buffer);
    std::vector<Out> elements;
    elements.reserve(layout.count());
    layout.walk([&](const char* address) { elements.push_back(convertElement<Out>(load<In>(address, swapped))); });
    return matrix::create(layout.sizes(), std::move(elements));
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

/// Real and imaginary parts, one pair after the other, as two arrays.
template <class In, class Out = In>
matrix::ArrayPtr gatherComplex(const Py_buffer& buffer, bool swapped)
{
    const Layout layout(buffer);
    std::vector<matrix::ArrayPtr> parts;
    for (const std::size_t offset : {std::size_t{0}, sizeof(In)}) {
        std::vector<Out> elements;
        elements.reserve(layout.count());
        layout.walk(
            [&](const char* address) { elements.push_back(convertElement<Out>(load<In>(address + offset, swapped))); });
        parts.push_back(matrix::create(layout.sizes(), std::move(elements)));
    }
    return matrix::createTyped("complex", matrix::createCellRow(std::move(parts)));
}

/// Null where the letter means no number.
matrix::ArrayPtr gatherComplexFormat(char letter, const Py_buffer& buffer, bool swapped)
{
    if (letter == 'f' && buffer.itemsize == 2 * sizeof(float))
        return gatherComplex<float>(buffer, swapped);
    if (letter == 'd' && buffer.itemsize == 2 * sizeof(double))
        return gatherComplex<double>(buffer, swapped);
    if (letter == 'g' && buffer.itemsize == 2 * sizeof(long double) && !swapped)
        return gatherComplex<long double, double>(buffer, false);
    return nullptr;
}

/// Null where the format means no plain number.
matrix::ArrayPtr gatherFormat(const Py_buffer& buffer)
{
    std::string_view format = buffer.format ? buffer.format : "B";
    bool swapped = false;
    if (!format.empty() && std::string_view("@=<>!^").find(format.front()) != std::string_view::npos) {
        swapped = format.front() == '>' || format.front() == '!';
        format.remove_prefix(1);
    }
    if (format.size() == 2 && format.front() == 'Z')
        return gatherComplexFormat(format.back(), buffer, swapped);
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
    const View view(value);
    if (auto array = gatherFormat(*view))
        return array;
    const char* format = (*view).format ? (*view).format : "B";
    fail(PyExc_TypeError, "elements of format '%s' (in a value of type '%s') have no array form", format,
         Py_TYPE(value)->tp_name);
}

} // namespace vendra::python
