#include "platform/matrix/vxarray.h"

#include <cstdlib>
#include <cstring>
#include <exception>

#include "platform/matrix/Array.h"

namespace {

/// The result of `make`, null where it throws: callers may be C, and nothing is to be thrown through them.
template <class Make>
auto orNull(Make make) noexcept -> decltype(make())
{
    try {
        return make();
    } catch (const std::exception&) { // out of memory, promised as null
        return nullptr;
    }
}

} // namespace

extern "C" {

vxArray* vxCreateString(const char* utf8)
{
    return orNull([utf8] { return matrix::create(std::string_view(utf8 != nullptr ? utf8 : "")).release(); });
}

vxArray* vxCreateCell(size_t rows, size_t columns) { return matrix::detail::create_cell(rows, columns).release(); }

vxArray* vxCreateDoubleScalar(double value)
{
    return orNull([value] { return matrix::createScalar(value).release(); });
}

void vxDestroyArray(vxArray* array) { delete array; }

vxClassID vxGetClassID(const vxArray* array) { return array != nullptr ? array->class_id() : vxUNKNOWN_CLASS; }

size_t vxGetNumberOfDimensions(const vxArray* array) { return array != nullptr ? array->dimensions().size() : 0; }

const size_t* vxGetDimensions(const vxArray* array) { return array != nullptr ? array->dimensions().data() : nullptr; }

size_t vxGetNumberOfElements(const vxArray* array) { return array != nullptr ? array->get_number_of_elements() : 0; }

vxArray* vxGetCell(const vxArray* cell, size_t index)
{
    const auto* const elements = cell != nullptr ? cell->elements<matrix::ArrayPtr>() : nullptr;
    return elements != nullptr && index < elements->size() ? (*elements)[index].get() : nullptr;
}

void vxSetCell(vxArray* cell, size_t index, vxArray* element)
{
    if (cell == element)
        return; // an array cannot own itself, and freeing it would take it from the caller
    auto* const elements = cell != nullptr ? cell->elements<matrix::ArrayPtr>() : nullptr;
    if (elements == nullptr || index >= elements->size())
        vxDestroyArray(element);
    else if ((*elements)[index].get() != element)
        (*elements)[index].reset(element);
}

char* vxArrayToUTF8(const vxArray* array)
{
    if (array == nullptr || !array->is_char())
        return nullptr;
    return orNull([array] {
        const std::string text = matrix::get_string(array);
        auto* const copy = static_cast<char*>(std::malloc(text.size() + 1));
        if (copy != nullptr)
            std::memcpy(copy, text.c_str(), text.size() + 1);
        return copy;
    });
}

} // extern "C"
