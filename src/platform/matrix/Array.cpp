#include "platform/matrix/Array.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <unordered_set>

namespace {

std::string describe(const matrix::Dimensions& dimensions)
{
    std::string text;
    for (const std::size_t size : dimensions)
        text += (text.empty() ? "" : "-by-") + std::to_string(size);
    return text;
}

/// At least two sizes, none of the trailing ones 1 beyond the second.
matrix::Dimensions normalize(matrix::Dimensions dimensions)
{
    while (dimensions.size() < 2)
        dimensions.push_back(1);
    while (dimensions.size() > 2 && dimensions.back() == 1)
        dimensions.pop_back();
    return dimensions;
}

void checkStruct(const matrix::Dimensions& dimensions, std::size_t elements, const matrix::StructData& data)
{
    std::unordered_set<std::string_view> seen;
    for (const std::string& field : data.fields)
        if (!seen.insert(field).second)
            throw std::invalid_argument("The field \"" + field + "\" appears twice in a struct.");

    const std::size_t fields = data.fields.size();
    // Divided, as elements × fields may overflow.
    const bool fits = fields == 0 || elements == 0
                          ? data.values.empty()
                          : data.values.size() % fields == 0 && data.values.size() / fields == elements;
    if (!fits)
        throw std::invalid_argument("A " + describe(dimensions) + " struct with " + std::to_string(fields) +
                                    " fields cannot hold " + std::to_string(data.values.size()) + " values.");
}

bool isClassName(std::string_view name)
{
    for (int id = vxCELL_CLASS; id <= vxTYPED_CLASS; ++id)
        if (name == matrix::className(static_cast<vxClassID>(id)))
            return true;
    return false;
}

void checkTyped(std::size_t elements, const matrix::TypedData& data)
{
    if (elements != 1)
        throw std::invalid_argument("A typed array holds one value.");
    const auto fits = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_'; };
    if (data.kind.empty() || data.kind.size() > matrix::kMaxKindLength || isClassName(data.kind) ||
        !std::all_of(data.kind.begin(), data.kind.end(), fits))
        throw std::invalid_argument("No kind of values can be called \"" + data.kind.substr(0, matrix::kMaxKindLength) +
                                    "\".");
}

std::vector<matrix::ArrayPtr> cloneAll(const std::vector<matrix::ArrayPtr>& arrays)
{
    std::vector<matrix::ArrayPtr> copies;
    copies.reserve(arrays.size());
    for (const matrix::ArrayPtr& array : arrays)
        copies.push_back(array ? matrix::clone(*array) : nullptr);
    return copies;
}

bool isNothing(const vxArray& array)
{
    return array.class_id() == vxDOUBLE_CLASS && array.dimensions() == matrix::Dimensions{0, 0};
}

bool identicalElement(const matrix::ArrayPtr& left, const matrix::ArrayPtr& right)
{
    if (left && right)
        return matrix::identical(*left, *right);
    return (!left || isNothing(*left)) && (!right || isNothing(*right));
}

template <class T>
bool identicalElement(T left, T right)
{
    if constexpr (std::is_floating_point_v<T>) {
        if (std::isnan(left) || std::isnan(right))
            return std::isnan(left) && std::isnan(right);
        return left == right && std::signbit(left) == std::signbit(right);
    } else {
        return left == right;
    }
}

template <class T>
bool identicalElements(const std::vector<T>& left, const std::vector<T>& right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const T& a, const T& b) { return identicalElement(a, b); });
}

} // namespace

vxArray_tag::vxArray_tag(matrix::Dimensions dimensions, matrix::ArrayData data)
    : dimensions_(normalize(std::move(dimensions))), data_(std::move(data))
{
    const std::size_t elements = matrix::countElements(dimensions_);
    std::visit(
        [this, elements](const auto& held) {
            if constexpr (std::is_same_v<std::decay_t<decltype(held)>, matrix::StructData>)
                checkStruct(dimensions_, elements, held);
            else if constexpr (std::is_same_v<std::decay_t<decltype(held)>, matrix::TypedData>)
                checkTyped(elements, held);
            else if (held.size() != elements)
                throw std::invalid_argument("A " + describe(dimensions_) + " " + matrix::className(class_id()) +
                                            " array cannot hold " + std::to_string(held.size()) + " elements.");
        },
        data_);
}

vxArray_tag::~vxArray_tag() = default;

std::size_t vxArray_tag::get_number_of_elements() const noexcept
{
    std::size_t count = 1;
    for (const std::size_t size : dimensions_)
        count *= size;
    return count;
}

bool vxArray_tag::is_row() const noexcept
{
    return dimensions_.size() == 2 && (dimensions_[0] == 1 || (dimensions_[0] == 0 && dimensions_[1] == 0));
}

namespace matrix {

std::size_t countElements(const Dimensions& dimensions)
{
    if (std::find(dimensions.begin(), dimensions.end(), std::size_t{0}) != dimensions.end())
        return 0;
    std::size_t count = 1;
    for (const std::size_t size : dimensions)
        if (__builtin_mul_overflow(count, size, &count))
            throw std::length_error("An array of " + describe(dimensions) + " elements is too large.");
    return count;
}

ArrayPtr create(Dimensions dimensions, ArrayData data)
{
    return ArrayPtr(new vxArray(std::move(dimensions), std::move(data)));
}

ArrayPtr createCellRow(std::vector<ArrayPtr> elements)
{
    const std::size_t count = elements.size();
    return create({1, count}, std::move(elements));
}

ArrayPtr createStruct(std::vector<std::pair<std::string, ArrayPtr>> fields)
{
    StructData data;
    data.fields.reserve(fields.size());
    data.values.reserve(fields.size());
    for (auto& [name, value] : fields) {
        data.fields.push_back(std::move(name));
        data.values.push_back(std::move(value));
    }
    return create({1, 1}, std::move(data));
}

ArrayPtr createTyped(std::string kind, ArrayPtr value)
{
    return create({1, 1}, TypedData{std::move(kind), std::move(value)});
}

ArrayPtr createEmpty() { return create({0, 0}, std::vector<double>()); }

ArrayPtr clone(const vxArray& array)
{
    ArrayData copy = std::visit(
        [](const auto& elements) -> ArrayData {
            using Elements = std::decay_t<decltype(elements)>;
            if constexpr (std::is_same_v<Elements, std::vector<ArrayPtr>>)
                return cloneAll(elements);
            else if constexpr (std::is_same_v<Elements, StructData>)
                return StructData{elements.fields, cloneAll(elements.values)};
            else if constexpr (std::is_same_v<Elements, TypedData>)
                return TypedData{elements.kind, elements.value ? clone(*elements.value) : nullptr};
            else
                return elements;
        },
        array.data());
    return create(array.dimensions(), std::move(copy));
}

bool identical(const vxArray& left, const vxArray& right)
{
    if (left.class_id() != right.class_id() || left.dimensions() != right.dimensions())
        return false;
    return std::visit(
        [&right](const auto& elements) {
            const auto& others = std::get<std::decay_t<decltype(elements)>>(right.data());
            if constexpr (std::is_same_v<std::decay_t<decltype(elements)>, StructData>)
                return elements.fields == others.fields && identicalElements(elements.values, others.values);
            else if constexpr (std::is_same_v<std::decay_t<decltype(elements)>, TypedData>)
                return elements.kind == others.kind && identicalElement(elements.value, others.value);
            else
                return identicalElements(elements, others);
        },
        left.data());
}

const char* className(vxClassID id) noexcept
{
    switch (id) {
    case vxUNKNOWN_CLASS:
        break;
    case vxCELL_CLASS:
        return "cell";
    case vxSTRUCT_CLASS:
        return "struct";
    case vxLOGICAL_CLASS:
        return "logical";
    case vxCHAR_CLASS:
        return "char";
    case vxDOUBLE_CLASS:
        return "double";
    case vxSINGLE_CLASS:
        return "single";
    case vxINT8_CLASS:
        return "int8";
    case vxUINT8_CLASS:
        return "uint8";
    case vxINT16_CLASS:
        return "int16";
    case vxUINT16_CLASS:
        return "uint16";
    case vxINT32_CLASS:
        return "int32";
    case vxUINT32_CLASS:
        return "uint32";
    case vxINT64_CLASS:
        return "int64";
    case vxUINT64_CLASS:
        return "uint64";
    case vxTYPED_CLASS:
        return "typed";
    }
    return "unknown";
}

ArrayPtr detail::create_cell(std::size_t rows, std::size_t columns) noexcept
{
    try {
        Dimensions dimensions{rows, columns};
        std::vector<ArrayPtr> elements(countElements(dimensions));
        return create(std::move(dimensions), std::move(elements));
    } catch (const std::exception&) { // bad_alloc or length_error, both promised as null
        return nullptr;
    }
}

} // namespace matrix
