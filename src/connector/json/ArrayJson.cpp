#include "connector/json/ArrayJson.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"
#include "platform/fl/i18n.h"

namespace connector::json {

namespace {

using matrix::ArrayPtr;
using matrix::Logical;

/// Beyond it, doubles (and so most readers of JSON) do not hold every integer.
constexpr std::int64_t kMaxExact = std::int64_t{1} << 53;

bool isScalar(const vxArray& array) { return array.get_number_of_elements() == 1 && array.dimensions().size() == 2; }

Var arrayToJson(const vxArray& array, std::size_t depth);

Var elementToJson(const ArrayPtr& element, std::size_t depth) { return element ? arrayToJson(*element, depth) : Var(); }

Var elementToJson(Logical element, std::size_t) { return element.value != 0; }

Var elementToJson(char16_t element, std::size_t) { return static_cast<Poco::Int64>(element); }

template <class Number>
requires std::is_arithmetic_v<Number> Var elementToJson(Number element, std::size_t)
{
    if constexpr (std::is_floating_point_v<Number>) {
        if (std::isnan(element))
            return std::string("NaN");
        if (std::isinf(element))
            return std::string(element > 0 ? "Infinity" : "-Infinity");
        return static_cast<double>(element);
    } else {
        if (std::cmp_greater(element, kMaxExact) || std::cmp_less(element, -kMaxExact))
            return std::to_string(element);
        return static_cast<Poco::Int64>(element);
    }
}

/// `depth` is that of the array that is made.
template <class Elements>
Array::Ptr elementsToJson(const Elements& elements, std::size_t depth)
{
    Array::Ptr data = new Array;
    for (std::size_t i = 0; i < elements.size(); ++i)
        within(i, [&] { data->add(elementToJson(elements[i], depth)); });
    return data;
}

const std::string& checkedField(const std::string& name)
{
    if (!fl::i18n::isValidUtf8(name))
        throw JsonError("the field name \"" + fl::i18n::toValidUtf8(name) + "\" is not valid UTF-8");
    return name;
}

Array::Ptr structToJson(const matrix::StructData& structure, std::size_t elements, std::size_t depth)
{
    const auto fields = structure.fields.size();
    Array::Ptr data = new Array;
    for (std::size_t element = 0; element < elements; ++element) {
        Array::Ptr values = new Array;
        for (std::size_t field = 0; field < fields; ++field)
            values->add(within(structure.fields[field],
                               [&] { return elementToJson(structure.values[element * fields + field], depth + 1); }));
        data->add(values);
    }
    return data;
}

Var typedToJson(const matrix::TypedData& typed, std::size_t depth)
{
    auto object = makeObject();
    object->set("vx", typed.kind);
    object->set("value", within("value", [&] { return elementToJson(typed.value, depth + 1); }));
    return object;
}

/// The form that holds any array but typed values.
Var describedToJson(const vxArray& array, std::size_t depth)
{
    auto object = makeObject();
    object->set("vx", std::string(matrix::className(array.class_id())));
    Array::Ptr size = new Array;
    for (const auto dimension : array.dimensions())
        size->add(static_cast<Poco::UInt64>(dimension));
    object->set("size", size);
    if (const auto* structure = array.structure()) {
        for (const auto& field : structure->fields)
            checkedField(field);
        object->set("fields", makeArray(structure->fields));
        object->set("data", structToJson(*structure, array.get_number_of_elements(), depth + 2));
    } else {
        std::visit(
            [&](const auto& elements) {
                using Elements = std::decay_t<decltype(elements)>;
                if constexpr (!std::is_same_v<Elements, matrix::StructData> &&
                              !std::is_same_v<Elements, matrix::TypedData>)
                    object->set("data", elementsToJson(elements, depth + 2));
            },
            array.data());
    }
    return object;
}

/// Whether the plain object says it all.
bool isPlainStruct(const matrix::StructData& structure)
{
    const auto& fields = structure.fields;
    return fields.size() <= kMaxOrderedMembers && std::find(fields.begin(), fields.end(), "vx") == fields.end();
}

Var arrayToJson(const vxArray& array, std::size_t depth)
{
    if (depth >= kMaxWriteDepth)
        throw JsonError("an array nested deeper than " + std::to_string(kMaxWriteDepth) + " has no JSON form");

    const auto& dimensions = array.dimensions();
    const bool isRow = dimensions.size() == 2 && dimensions[0] == 1;
    const bool isNothing = dimensions.size() == 2 && dimensions[0] == 0 && dimensions[1] == 0;
    if (const auto* numbers = array.elements<double>()) {
        if (isNothing)
            return {};
        if (isScalar(array) && std::isfinite(numbers->front()))
            return numbers->front();
    } else if (const auto* units = array.elements<char16_t>()) {
        const std::u16string_view text(units->data(), units->size());
        if (isNothing || (isRow && !text.empty() && fl::i18n::isValidUtf16(text)))
            return matrix::get_string(&array);
    } else if (const auto* truths = array.elements<Logical>()) {
        if (isScalar(array))
            return truths->front().value != 0;
    } else if (const auto* integers = array.elements<std::int64_t>()) {
        if (isScalar(array) && integers->front() >= -kMaxExact && integers->front() <= kMaxExact)
            return static_cast<Poco::Int64>(integers->front());
    } else if (const auto* cells = array.elements<ArrayPtr>()) {
        if (isRow)
            return elementsToJson(*cells, depth + 1);
    } else if (const auto* structure = array.structure()) {
        if (isScalar(array) && isPlainStruct(*structure)) {
            auto object = makeObject();
            for (std::size_t i = 0; i < structure->fields.size(); ++i) {
                const auto& field = checkedField(structure->fields[i]);
                object->set(field, within(field, [&] { return elementToJson(structure->values[i], depth + 1); }));
            }
            return object;
        }
    } else if (const auto* typed = array.typed()) {
        return typedToJson(*typed, depth);
    }
    return describedToJson(array, depth);
}

} // namespace

Var toJson(const vxArray& array) { return arrayToJson(array, 0); }

} // namespace connector::json
