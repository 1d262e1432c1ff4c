#include "connector/json/JsonText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <typeinfo>
#include <vector>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonSerializer.h"
#include "platform/fl/i18n.h"

namespace connector::json {

namespace {

using Poco::Dynamic::Var;

void appendEscaped(std::string& json, std::string_view text)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::size_t written = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte != '"' && byte != '\\')
            continue;
        json.append(text, written, i - written);
        written = i + 1;
        constexpr std::string_view kNamed = "\"\\\b\f\n\r\t";
        if (const auto name = kNamed.find(text[i]); name != std::string_view::npos)
            json += {'\\', "\"\\bfnrt"[name]};
        else
            json += {'\\', 'u', '0', '0', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    json.append(text, written);
}

class Writer
{
public:
    std::string take() && { return std::move(text_); }

    void writeValue(const Var& value, std::size_t depth)
    {
        if (value.isEmpty())
            text_ += "null";
        else if (value.type() == typeid(std::string))
            appendString(text_, value.extract<std::string>());
        else if (value.type() == typeid(bool))
            text_ += value.extract<bool>() ? "true" : "false";
        else if (value.type() == typeid(Poco::JSON::Object::Ptr))
            writeObject(*value.extract<Poco::JSON::Object::Ptr>(), depth + 1);
        else if (value.type() == typeid(Poco::JSON::Array::Ptr))
            writeArray(*value.extract<Poco::JSON::Array::Ptr>(), depth + 1);
        else if (value.type() == typeid(Poco::JSON::Object))
            writeObject(value.extract<Poco::JSON::Object>(), depth + 1);
        else if (value.type() == typeid(Poco::JSON::Array))
            writeArray(value.extract<Poco::JSON::Array>(), depth + 1);
        else if (value.isInteger())
            writeInteger(value);
        else if (value.type() == typeid(double) || value.type() == typeid(float))
            writeDouble(value.convert<double>());
        else
            throw JsonError(std::string("no JSON form for a value of the type ") + value.type().name());
    }

private:
    static void checkDepth(std::size_t depth)
    {
        if (depth > kMaxWriteDepth)
            throw JsonError("a value nested deeper than " + std::to_string(kMaxWriteDepth) + " is not written");
    }

    void writeInteger(const Var& value)
    {
        char digits[24];
        const auto result = value.isSigned()
                                ? std::to_chars(digits, digits + sizeof digits, value.convert<Poco::Int64>())
                                : std::to_chars(digits, digits + sizeof digits, value.convert<Poco::UInt64>());
        text_.append(digits, result.ptr);
    }

    void writeDouble(double value)
    {
        if (!std::isfinite(value))
            throw JsonError(std::string("no JSON form for the number ") + (std::isnan(value) ? "NaN" : "Infinity"));
        char digits[32];
        const auto result = std::to_chars(digits, digits + sizeof digits, value);
        text_.append(digits, result.ptr);
        if (std::find_if(digits, result.ptr, [](char c) { return c == '.' || c == 'e'; }) == result.ptr)
            text_ += ".0";
    }

    void writeArray(const Poco::JSON::Array& array, std::size_t depth)
    {
        checkDepth(depth);
        text_ += '[';
        bool first = true;
        for (const auto& value : array) {
            if (!std::exchange(first, false))
                text_ += ',';
            writeValue(value, depth);
        }
        text_ += ']';
    }

    void writeObject(const Poco::JSON::Object& object, std::size_t depth)
    {
        checkDepth(depth);
        text_ += '{';
        bool first = true;
        for (const auto* member : membersInOrder(object)) {
            if (!std::exchange(first, false))
                text_ += ',';
            appendString(text_, member->first);
            text_ += ':';
            writeValue(member->second, depth);
        }
        text_ += '}';
    }

    std::string text_;
};

} // namespace

void appendString(std::string& json, std::string_view text)
{
    json += '"';
    if (fl::i18n::isValidUtf8(text))
        appendEscaped(json, text);
    else
        appendEscaped(json, fl::i18n::toValidUtf8(text));
    json += '"';
}

std::string write(const Var& value)
{
    Writer writer;
    writer.writeValue(value, 0);
    return std::move(writer).take();
}

} // namespace connector::json
