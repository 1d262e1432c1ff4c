#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>

#include "connector/json/ArrayJson.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::json {

namespace {

using matrix::ArrayPtr;
using matrix::Logical;

ArrayPtr readArray(const Var& value, std::size_t depth);

template <class Integer>
Integer readInteger(const Var& value)
{
    using Limits = std::numeric_limits<Integer>;
    const auto fail = [&](const std::string& found) {
        throw JsonError("expected an integer from " + std::to_string(Limits::min()) + " to " +
                        std::to_string(Limits::max()) + " but found " + found);
    };
    if (value.type() == typeid(std::string)) {
        const auto& text = value.extract<std::string>();
        Integer number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || end != text.data() + text.size())
            fail("the string \"" + text.substr(0, 40) + "\"");
        return number;
    }
    if (std::is_same_v<Integer, std::uint64_t> && value.isInteger() && !value.isSigned() && !value.isBoolean())
        return static_cast<Integer>(value.convert<Poco::UInt64>());
    constexpr auto kMaximum =
        std::cmp_less(Limits::max(), kMaxInteger) ? static_cast<std::int64_t>(Limits::max()) : kMaxInteger;
    return static_cast<Integer>(asInteger(value, static_cast<std::int64_t>(Limits::min()), kMaximum));
}

template <class Real>
Real readReal(const Var& value)
{
    using Limits = std::numeric_limits<Real>;
    if (value.type() == typeid(std::string)) {
        const auto& text = value.extract<std::string>();
        if (text == "NaN")
            return Limits::quiet_NaN();
        if (text == "Infinity")
            return Limits::infinity();
        if (text == "-Infinity")
            return -Limits::infinity();
        throw JsonError("expected a number, \"NaN\", \"Infinity\" or \"-Infinity\" but found \"" + text.substr(0, 40) +
                        "\"");
    }
    const auto number = asDouble(value);
    if (std::isfinite(number) && std::fabs(number) > static_cast<double>(Limits::max()))
        throw JsonError("the number " + value.toString() + " is beyond the range of the class");
    return static_cast<Real>(number);
}

template <class Element>
Element readElement(const Var& value, std::size_t depth)
{
    if constexpr (std::is_same_v<Element, ArrayPtr>)
        return readArray(value, depth);
    else if constexpr (std::is_same_v<Element, Logical>)
        return Logical{static_cast<std::uint8_t>(asBool(value))};
    else if constexpr (std::is_same_v<Element, char16_t>)
        return static_cast<char16_t>(asInteger(value, 0, 0xFFFF));
    else if constexpr (std::is_floating_point_v<Element>)
        return readReal<Element>(value);
    else
        return readInteger<Element>(value);
}

template <class Element>
std::vector<Element> readElements(const Array& data, std::size_t depth)
{
    std::vector<Element> elements;
    elements.reserve(data.size());
    for (const auto& value : data)
        elements.push_back(within(elements.size(), [&] { return readElement<Element>(value, depth); }));
    return elements;
}

matrix::Dimensions readSize(const Object& object)
{
    const auto size = requireArray(object, "size");
    matrix::Dimensions dimensions;
    for (const auto& value : *size)
        dimensions.push_back(within("size", [&] {
            return within(dimensions.size(), [&] { return static_cast<std::size_t>(asInteger(value, 0)); });
        }));
    if (dimensions.size() < 2)
        throw JsonError("size: expected two numbers or more but found " + std::to_string(dimensions.size()));
    return dimensions;
}

/// Compared before anything is made of that many elements.
void checkCount(const matrix::Dimensions& dimensions, const Array& data)
{
    std::size_t count = 0;
    try {
        count = matrix::countElements(dimensions);
    } catch (const std::length_error& error) {
        throw JsonError(std::string("size: ") + error.what());
    }
    if (count != data.size())
        throw JsonError("data: expected " + std::to_string(count) + " elements, as the size says, but found " +
                        std::to_string(data.size()));
}

matrix::StructData readStruct(const Object& object, const Array& data, std::size_t depth)
{
    matrix::StructData structure;
    structure.fields = requireStrings(object, "fields");
    const auto fields = structure.fields.size();
    for (std::size_t element = 0; element < data.size(); ++element) {
        within("data", [&] {
            within(element, [&] {
                const auto values = asArray(data.get(static_cast<unsigned>(element)));
                if (values->size() != fields)
                    throw JsonError("expected " + std::to_string(fields) + " values, one per field, but found " +
                                    std::to_string(values->size()));
                for (auto& value : readElements<ArrayPtr>(*values, depth + 1))
                    structure.values.push_back(std::move(value));
            });
        });
    }
    return structure;
}

template <class Element>
matrix::ArrayData readData(const Object&, const Array& data, std::size_t depth)
{
    return within("data", [&] { return readElements<Element>(data, depth); });
}

matrix::ArrayData readStructData(const Object& object, const Array& data, std::size_t depth)
{
    return readStruct(object, data, depth);
}

struct ClassReader
{
    vxClassID id;
    matrix::ArrayData (*read)(const Object& object, const Array& data, std::size_t depth);
};

constexpr ClassReader kReaders[] = {{vxCELL_CLASS, readData<ArrayPtr>},      {vxSTRUCT_CLASS, readStructData},
                                    {vxLOGICAL_CLASS, readData<Logical>},    {vxCHAR_CLASS, readData<char16_t>},
                                    {vxDOUBLE_CLASS, readData<double>},      {vxSINGLE_CLASS, readData<float>},
                                    {vxINT8_CLASS, readData<std::int8_t>},   {vxUINT8_CLASS, readData<std::uint8_t>},
                                    {vxINT16_CLASS, readData<std::int16_t>}, {vxUINT16_CLASS, readData<std::uint16_t>},
                                    {vxINT32_CLASS, readData<std::int32_t>}, {vxUINT32_CLASS, readData<std::uint32_t>},
                                    {vxINT64_CLASS, readData<std::int64_t>}, {vxUINT64_CLASS, readData<std::uint64_t>}};

/// {"vx": kind, "value": …}. Which kinds there are is known to the host's language.
ArrayPtr readTyped(const std::string& kind, const Object& object, std::size_t depth)
{
    for (const auto& [member, value] : object)
        if (member != "vx" && member != "value")
            throw JsonError("unknown member \"" + member + "\" of a value of the kind " + kind);
    auto value = within("value", [&] { return readArray(object.get("value"), depth + 1); });
    try {
        return matrix::createTyped(kind, std::move(value));
    } catch (const std::invalid_argument& error) {
        throw JsonError(std::string("vx: ") + error.what());
    }
}

/// {"vx": class, "size": …, "data": …}
ArrayPtr readDescribed(const Object& object, std::size_t depth)
{
    const auto name = requireString(object, "vx");
    for (const auto& reader : kReaders) {
        if (name != matrix::className(reader.id))
            continue;
        for (const auto& [member, value] : object) {
            if (member != "vx" && member != "size" && member != "data" &&
                !(member == "fields" && reader.id == vxSTRUCT_CLASS))
                throw JsonError("unknown member \"" + member + "\" of an array of the class " + name);
        }
        auto dimensions = readSize(object);
        const auto data = requireArray(object, "data");
        checkCount(dimensions, *data);
        try {
            return matrix::create(std::move(dimensions), reader.read(object, *data, depth + 2));
        } catch (const JsonError&) {
            throw;
        } catch (const std::invalid_argument& error) {
            throw JsonError(error.what());
        }
    }
    if (object.has("value"))
        return readTyped(name, object, depth);
    throw JsonError("vx: unknown class \"" + name + "\"");
}

ArrayPtr readFields(const Object& object, std::size_t depth)
{
    std::vector<std::pair<std::string, ArrayPtr>> fields;
    for (const auto* member : membersInOrder(object))
        fields.emplace_back(member->first, within(member->first, [&] { return readArray(member->second, depth + 1); }));
    return matrix::createStruct(std::move(fields));
}

ArrayPtr readArray(const Var& value, std::size_t depth)
{
    if (depth >= kMaxWriteDepth)
        throw JsonError("nested deeper than " + std::to_string(kMaxWriteDepth));
    if (value.isEmpty())
        return matrix::createEmpty();
    if (value.type() == typeid(std::string))
        return matrix::create(value.extract<std::string>());
    if (value.isBoolean())
        return matrix::createScalar(value.extract<bool>());
    if (value.isInteger())
        return !value.isSigned() && value.convert<Poco::UInt64>() > static_cast<Poco::UInt64>(kMaxInteger)
                   ? matrix::createScalar(static_cast<std::uint64_t>(value.convert<Poco::UInt64>()))
                   : matrix::createScalar(asInteger(value));
    if (value.isNumeric())
        return matrix::createScalar(asDouble(value));
    if (value.type() == typeid(Array::Ptr) || value.type() == typeid(Array))
        return matrix::createCellRow(readElements<ArrayPtr>(*asArray(value), depth + 1));
    const auto object = asObject(value);
    return object->has("vx") ? readDescribed(*object, depth) : readFields(*object, depth);
}

} // namespace

ArrayPtr fromJson(const Var& value) { return readArray(value, 0); }

} // namespace connector::json
