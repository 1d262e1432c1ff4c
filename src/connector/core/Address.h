#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "connector/Export.h"

namespace connector {

/// Names a provider, or a chain of providers, by zero to eight service names in the order in which a message passes
/// them: filters first, the serving provider last. A name with a leading "?" is optional: it is skipped when nobody
/// serves it.
class CONNECTOR_API Address
{
public:
    static constexpr std::size_t kMaxParts = 8;

    Address() = default;
    explicit Address(const char* part) : parts_{part} {}
    template <class... More>
    requires(sizeof...(More) < kMaxParts && (std::is_convertible_v<More, const char*> && ...))
        Address(const char* first, More... more)
        : parts_{first, more...}
    {}
    /// Throws std::invalid_argument for more than eight parts or an empty one.
    explicit Address(std::vector<std::string> parts);

    /// What was moved from is empty.
    Address(Address&& other) noexcept
        : parts_(std::move(other.parts_)), next_(std::exchange(other.next_, std::size_t{0}))
    {}
    Address& operator=(Address&& other) noexcept
    {
        Address taken(std::move(other));
        parts_.swap(taken.parts_);
        std::swap(next_, taken.next_);
        return *this;
    }
    Address(const Address&) = default;
    Address& operator=(const Address&) = default;
    ~Address() = default;

    bool empty() const noexcept { return next_ == parts_.size(); }
    std::size_t size() const noexcept { return parts_.size() - next_; }
    /// The name the message goes to next. The address must not be empty.
    const std::string& front() const { return parts_[next_]; }
    /// Takes the first name off.
    void popFront() noexcept { ++next_; }
    /// The names still to pass, in order.
    std::vector<std::string> parts() const
    {
        return {parts_.begin() + static_cast<std::ptrdiff_t>(next_), parts_.end()};
    }

    friend bool operator==(const Address& left, const Address& right) { return left.parts() == right.parts(); }
    /// The parts joined by " > ".
    friend CONNECTOR_API std::ostream& operator<<(std::ostream& out, const Address& address);

private:
    std::vector<std::string> parts_;
    std::size_t next_ = 0;
};

/// As `operator<<` writes it.
CONNECTOR_API std::string toString(const Address& address);

} // namespace connector
