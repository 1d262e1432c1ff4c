#pragma once

#include <concepts>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include "platform/Export.h"

/// How values inside an Any are printed and compared. Everything here is chosen at compile time, per stored type.
namespace us::detail {

/// The readable name of a type.
VENDRA_PLATFORM_API std::string typeName(const std::type_info& type);
VENDRA_PLATFORM_API std::string jsonQuoted(std::string_view text);
/// The shortest text that reads back as the same number.
VENDRA_PLATFORM_API std::string numberText(double value);
VENDRA_PLATFORM_API std::string numberText(float value);

template <class T>
concept StringLike = std::convertible_to<const T&, std::string_view>;
template <class T>
concept Streamable = requires(std::ostream& out, const T& value)
{
    out << value;
};
template <class T>
concept Range = requires(const T& value)
{
    value.begin();
    value.end();
    typename T::value_type;
};
template <class T>
concept Dictionary = Range<T> && requires
{
    typename T::mapped_type;
} && StringLike<typename T::key_type>;
template <class T>
concept PrintsItself = requires(const T& value)
{
    {
        value.ToJSON()
        } -> std::same_as<std::string>;
};

template <class T>
std::string toText(const T& value);

template <class T>
std::string toJson(const T& value)
{
    if constexpr (PrintsItself<T>) {
        return value.ToJSON();
    } else if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, char>) {
        return toText(value);
    } else if constexpr (Dictionary<T>) {
        std::string json = "{";
        for (const auto& [key, element] : value)
            json += (json.size() > 1 ? "," : "") + jsonQuoted(key) + ":" + toJson(element);
        return json + "}";
    } else if constexpr (Range<T> && !StringLike<T> && !Streamable<T>) {
        std::string json = "[";
        for (const typename T::value_type& element : value)
            json += (json.size() > 1 ? "," : "") + toJson(element);
        return json + "]";
    } else {
        return jsonQuoted(toText(value));
    }
}

template <class T>
std::string toText(const T& value)
{
    if constexpr (std::is_same_v<T, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_same_v<T, char>) {
        return std::string(1, value);
    } else if constexpr (std::is_floating_point_v<T>) {
        return numberText(static_cast<std::conditional_t<std::is_same_v<T, float>, float, double>>(value));
    } else if constexpr (std::is_integral_v<T>) {
        return std::to_string(value);
    } else if constexpr (StringLike<T>) {
        return std::string(std::string_view(value));
    } else if constexpr (Streamable<T>) {
        std::ostringstream out;
        out << value;
        return out.str();
    } else if constexpr (Range<T>) {
        return toJson(value);
    } else {
        return "<" + typeName(typeid(T)) + ">";
    }
}

/// Whether `a == b` compiles. Containers and pairs declare it for any element, hence the look at what they hold.
template <class T>
constexpr bool comparable()
{
    if constexpr (requires {
                      typename T::first_type;
                      typename T::second_type;
                  })
        return comparable<std::remove_cv_t<typename T::first_type>>() && comparable<typename T::second_type>();
    else if constexpr (Range<T> && !StringLike<T>)
        return comparable<typename T::value_type>() && std::equality_comparable<T>;
    else
        return std::equality_comparable<T>;
}

} // namespace us::detail
