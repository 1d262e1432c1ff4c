#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "platform/Export.h"
#include "platform/us/detail/AnyText.h"

namespace us {

/// An Any was asked for a type that it does not hold. The text names both types.
class VENDRA_PLATFORM_API BadAnyCastException : public std::bad_cast
{
public:
    explicit BadAnyCastException(std::string text);
    ~BadAnyCastException() override;
    const char* what() const noexcept override { return text_.c_str(); }

private:
    std::string text_;
};

/// One value of any copyable type, or none. A text literal is stored as std::string. An ordinary value as to threads.
/// Types that travel between libraries need default visibility.
class VENDRA_PLATFORM_API Any
{
public:
    Any() noexcept = default;
    template <class T>
    requires(!std::same_as<std::decay_t<T>, Any>) && std::copy_constructible<std::decay_t<T>> Any(T&& value)
        : content_(std::make_unique<Holder<Stored<T>>>(std::forward<T>(value)))
    {}
    Any(const Any& other) : content_(other.content_ ? other.content_->clone() : nullptr) {}
    Any(Any&& other) noexcept = default;
    Any& operator=(Any other) noexcept
    {
        content_.swap(other.content_);
        return *this;
    }
    ~Any() = default;

    Any& Swap(Any& other) noexcept
    {
        content_.swap(other.content_);
        return *this;
    }

    bool Empty() const noexcept { return !content_; }
    /// typeid(void) when empty.
    const std::type_info& Type() const noexcept { return content_ ? content_->type() : typeid(void); }

    /// Texts as they are, numbers and bools as in C++ source, containers as JSON, other types through their operator<<
    /// or, without one, their type's name in angle brackets. Throws std::logic_error when empty.
    std::string ToString() const;
    /// The same, but an empty text when empty.
    std::string ToStringNoExcept() const;
    /// "null" when empty; what has no form in JSON becomes a quoted text.
    std::string ToJSON() const;

    /// Same type and equal values. Two empty ones are equal; values of a type without operator== never are.
    friend bool operator==(const Any& a, const Any& b)
    {
        if (a.Empty() || b.Empty())
            return a.Empty() == b.Empty();
        return a.Type() == b.Type() && a.content_->equals(*b.content_);
    }

private:
    template <class T>
    using Stored =
        std::conditional_t<std::is_same_v<std::decay_t<T>, const char*> || std::is_same_v<std::decay_t<T>, char*>,
                           std::string, std::decay_t<T>>;

    struct Content
    {
        virtual ~Content() = default;
        virtual std::unique_ptr<Content> clone() const = 0;
        virtual const std::type_info& type() const noexcept = 0;
        virtual std::string text() const = 0;
        virtual std::string json() const = 0;
        /// Only for contents of one type.
        virtual bool equals(const Content& other) const = 0;
    };

    template <class T>
    struct Holder final : Content
    {
        template <class U>
        explicit Holder(U&& from) : value(std::forward<U>(from))
        {}
        std::unique_ptr<Content> clone() const override { return std::make_unique<Holder>(value); }
        const std::type_info& type() const noexcept override { return typeid(T); }
        std::string text() const override { return detail::toText(value); }
        std::string json() const override { return detail::toJson(value); }
        bool equals([[maybe_unused]] const Content& other) const override
        {
            if constexpr (detail::comparable<T>())
                return value == static_cast<const Holder&>(other).value;
            else
                return false;
        }

        T value;
    };

    template <class T>
    friend const T* any_cast(const Any* any) noexcept;

    std::unique_ptr<Content> content_;
};

namespace detail {
[[noreturn]] VENDRA_PLATFORM_API void throwBadAnyCast(const char* what, const Any& any, const std::type_info& wanted);
} // namespace detail

/// The value if it has exactly that type (an int is not a long), else null.
template <class T>
const T* any_cast(const Any* any) noexcept
{
    using Value = std::remove_cv_t<T>;
    if (!any || any->Empty() || any->Type() != typeid(Value))
        return nullptr;
    return &static_cast<const Any::Holder<Value>*>(any->content_.get())->value;
}

template <class T>
T* any_cast(Any* any) noexcept
{
    return const_cast<T*>(any_cast<T>(static_cast<const Any*>(any)));
}

/// A copy of the value. Throws BadAnyCastException when empty or of another type.
template <class T>
T any_cast(const Any& any)
{
    const auto* value = any_cast<std::remove_cvref_t<T>>(&any);
    if (!value)
        detail::throwBadAnyCast("Failed to convert between Any types", any, typeid(std::remove_cvref_t<T>));
    return *value;
}

/// The value itself, valid as long as the Any keeps it. Throws BadAnyCastException when empty or of another type.
template <class T>
const T& ref_any_cast(const Any& any)
{
    const T* value = any_cast<T>(&any);
    if (!value)
        detail::throwBadAnyCast("RefAnyCast: Failed to convert between const Any types", any, typeid(T));
    return *value;
}

template <class T>
T& ref_any_cast(Any& any)
{
    T* value = any_cast<T>(&any);
    if (!value)
        detail::throwBadAnyCast("RefAnyCast: Failed to convert between Any types", any, typeid(T));
    return *value;
}

} // namespace us
