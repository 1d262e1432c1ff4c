#include "platform/us/Any.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include <cxxabi.h>

namespace us {

BadAnyCastException::BadAnyCastException(std::string text) : text_(std::move(text)) {}
BadAnyCastException::~BadAnyCastException() = default;

std::string Any::ToString() const
{
    if (Empty())
        throw std::logic_error("An empty Any has no text");
    return content_->text();
}

std::string Any::ToStringNoExcept() const { return Empty() ? std::string() : content_->text(); }

std::string Any::ToJSON() const { return Empty() ? "null" : content_->json(); }

namespace detail {

std::string typeName(const std::type_info& type)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                           &std::free);
    return status == 0 && name ? name.get() : type.name();
}

std::string jsonQuoted(std::string_view text)
{
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            quoted += {'\\', c};
        else if (c == '\n')
            quoted += "\\n";
        else if (c == '\t')
            quoted += "\\t";
        else if (static_cast<unsigned char>(c) < 0x20)
            quoted += {'\\', 'u', '0', '0', kHex[static_cast<unsigned char>(c) >> 4], kHex[c & 0xf]};
        else
            quoted += c;
    }
    return quoted + "\"";
}

namespace {

template <class Float>
std::string shortest(Float value)
{
    if (!std::isfinite(value))
        return "null"; // JSON knows no such number
    std::array<char, 64> buffer{};
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
    return std::string(buffer.data(), end);
}

} // namespace

std::string numberText(double value) { return shortest(value); }
std::string numberText(float value) { return shortest(value); }

void throwBadAnyCast(const char* what, const Any& any, const std::type_info& wanted)
{
    throw BadAnyCastException(std::string(what) + ": it holds " + (any.Empty() ? "nothing" : typeName(any.Type())) +
                              ", asked for was " + typeName(wanted));
}

} // namespace detail
} // namespace us
