#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Export.h"
#include "platform/matrix/vxarray.h"

namespace matrix {

struct ArrayDeleter
{
    void operator()(vxArray* array) const noexcept { vxDestroyArray(array); }
};

/// Sole owner of an array.
using ArrayPtr = std::unique_ptr<vxArray, ArrayDeleter>;

/// A truth value; its own type so that it is not mistaken for a uint8.
struct Logical
{
    std::uint8_t value = 0;
    friend bool operator==(Logical, Logical) = default;
};

/// The contents of a struct array: `values` holds, element after element, one array per field in field order.
/// An empty pointer stands for the 0-by-0 double.
struct StructData
{
    std::vector<std::string> fields; ///< UTF-8, each name once
    std::vector<ArrayPtr> values;    ///< elements × fields
};

/// One value that the other classes cannot hold (a date, a decimal number, a set): what tells it, and the name of its
/// kind, by which the host's language makes it again.
struct TypedData
{
    std::string kind; ///< lower-case letters, digits and '_', at most kMaxKindLength; not a class's name
    ArrayPtr value;   ///< an empty pointer stands for the 0-by-0 double
};

inline constexpr std::size_t kMaxKindLength = 64;

/// One alternative per class, in the order of `vxClassID` from `vxCELL_CLASS` on.
using ArrayData =
    std::variant<std::vector<ArrayPtr>, StructData, std::vector<Logical>, std::vector<char16_t>, std::vector<double>,
                 std::vector<float>, std::vector<std::int8_t>, std::vector<std::uint8_t>, std::vector<std::int16_t>,
                 std::vector<std::uint16_t>, std::vector<std::int32_t>, std::vector<std::uint32_t>,
                 std::vector<std::int64_t>, std::vector<std::uint64_t>, TypedData>;

using Dimensions = std::vector<std::size_t>;

/// The product of the sizes; 0 when any is 0. Throws std::length_error naming the sizes when it overflows.
VENDRA_PLATFORM_API std::size_t countElements(const Dimensions& dimensions);

} // namespace matrix

/// One array: class, sizes, elements. Invariants: at least two dimensions (missing ones are 1), trailing ones beyond
/// the second dropped, and as many elements as the sizes say (for a struct: elements × fields values). Cells and
/// structs nest, and must not hold themselves; freeing, copying and comparing use stack in proportion to the depth, so
/// whoever builds arrays from foreign text limits it.
struct VENDRA_PLATFORM_API vxArray_tag
{
public:
    /// Throws std::invalid_argument when `data` does not have as many elements as `dimensions` say, names a field twice
    /// or a kind that is none, std::length_error as countElements.
    vxArray_tag(matrix::Dimensions dimensions, matrix::ArrayData data);
    ~vxArray_tag();
    vxArray_tag(const vxArray_tag&) = delete;
    vxArray_tag& operator=(const vxArray_tag&) = delete;

    vxClassID class_id() const noexcept { return static_cast<vxClassID>(data_.index() + vxCELL_CLASS); }
    const matrix::Dimensions& dimensions() const noexcept { return dimensions_; }
    std::size_t get_number_of_elements() const noexcept;
    bool is_char() const noexcept { return class_id() == vxCHAR_CLASS; }
    bool is_cell() const noexcept { return class_id() == vxCELL_CLASS; }
    bool is_empty() const noexcept { return get_number_of_elements() == 0; }
    /// 1-by-n, n of any size; also 0-by-0.
    bool is_row() const noexcept;

    const matrix::ArrayData& data() const noexcept { return data_; }
    matrix::ArrayData& data() noexcept { return data_; }

    /// The elements when they are of type T (e.g. `double`, `char16_t`, `matrix::Logical`, `matrix::ArrayPtr`), else
    /// null.
    template <class T>
    const std::vector<T>* elements() const noexcept
    {
        return std::get_if<std::vector<T>>(&data_);
    }
    template <class T>
    std::vector<T>* elements() noexcept
    {
        return std::get_if<std::vector<T>>(&data_);
    }
    const matrix::StructData* structure() const noexcept { return std::get_if<matrix::StructData>(&data_); }
    matrix::StructData* structure() noexcept { return std::get_if<matrix::StructData>(&data_); }
    const matrix::TypedData* typed() const noexcept { return std::get_if<matrix::TypedData>(&data_); }

private:
    matrix::Dimensions dimensions_;
    matrix::ArrayData data_;
};

namespace fl::i18n {
class codecvt_ustring_to_string;
}

namespace matrix {

/// Any array from its sizes and elements; see vxArray_tag for the errors.
VENDRA_PLATFORM_API ArrayPtr create(Dimensions dimensions, ArrayData data);

/// A row of UTF-16 units from `length` bytes of UTF-8 (U+FFFD for each maximal invalid subpart, as chapter 3.9 of the
/// Unicode standard recommends); no bytes make a 0-by-0 char array. Bytes may hold NUL.
VENDRA_PLATFORM_API ArrayPtr create(const char* bytes, std::size_t length);
VENDRA_PLATFORM_API ArrayPtr create(std::string_view utf8);
VENDRA_PLATFORM_API ArrayPtr create(std::u16string_view units);

/// A 1-by-1 array of any element type of ArrayData but cells and structs.
template <class T>
requires std::is_arithmetic_v<T> || std::is_same_v<T, Logical> ArrayPtr createScalar(T value)
{
    if constexpr (std::is_same_v<T, bool>)
        return create({1, 1}, std::vector<Logical>{Logical{static_cast<std::uint8_t>(value)}});
    else
        return create({1, 1}, std::vector<T>{value});
}

/// A 1-by-n cell array that owns `elements`.
VENDRA_PLATFORM_API ArrayPtr createCellRow(std::vector<ArrayPtr> elements);

/// A 1-by-1 struct. Throws std::invalid_argument naming a field that appears twice.
VENDRA_PLATFORM_API ArrayPtr createStruct(std::vector<std::pair<std::string, ArrayPtr>> fields);

/// One value of a kind; see TypedData. Throws std::invalid_argument for a name that no kind can have.
VENDRA_PLATFORM_API ArrayPtr createTyped(std::string kind, ArrayPtr value);

/// The 0-by-0 double, which also stands for "nothing".
VENDRA_PLATFORM_API ArrayPtr createEmpty();

/// A deep copy.
VENDRA_PLATFORM_API ArrayPtr clone(const vxArray& array);

/// Same class, sizes, fields in the same order and elements; NaN equal to NaN, -0.0 different from 0.0; an empty cell
/// or field pointer equals the 0-by-0 double.
VENDRA_PLATFORM_API bool identical(const vxArray& left, const vxArray& right);

/// The class's name as scripts and messages spell it: "double", "single", "int8" …, "logical", "char", "cell",
/// "struct", "typed".
VENDRA_PLATFORM_API const char* className(vxClassID id) noexcept;

/// The text of a char array, its units in memory order, as UTF-8; an unpaired surrogate becomes U+FFFD. An array of
/// another class, or null, yields an empty string.
VENDRA_PLATFORM_API std::string get_string(const vxArray* array);
/// The same in the converter's encoding.
VENDRA_PLATFORM_API std::string get_string(const vxArray* array, const fl::i18n::codecvt_ustring_to_string& converter);

/// Hands the ownership of a result to the host, which frees it with `vxDestroyArray`.
inline vxArray* to_vendra(ArrayPtr array) noexcept { return array.release(); }

namespace detail {

/// A rows-by-columns cell array of empty elements, or nothing when memory is out or the size overflows.
VENDRA_PLATFORM_API ArrayPtr create_cell(std::size_t rows, std::size_t columns) noexcept;

} // namespace detail
} // namespace matrix
