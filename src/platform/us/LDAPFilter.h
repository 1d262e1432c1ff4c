#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "platform/Export.h"
#include "platform/us/ServiceProperties.h"
#include "platform/us/detail/PropertyMap.h"

namespace us {

class ServiceReferenceBase;

/// A condition on properties in the notation of RFC 4515, such as `(&(kind=file)(!(size>=100))(name=*.txt))`.
///
/// Operators: `=` with `*` as wildcard, `=*` (present), `~=` (ignoring case and blanks), `>=`, `<=`, `&`, `|`, `!`;
/// `\` takes the next character as it is. Attribute names are compared without regard to case, values with.
/// Texts, characters, bools and numbers compare as their type does; a list matches when one of its elements does. What
/// is missing or of another type matches nothing. Threads: any; copies share one immutable tree.
class VENDRA_PLATFORM_API LDAPFilter
{
public:
    /// Matches nothing.
    LDAPFilter() = default;
    /// Throws std::invalid_argument that names the fault and the rest of the text from there.
    explicit LDAPFilter(const std::string& text);

    explicit operator bool() const noexcept { return root_ != nullptr; }

    bool Match(const ServiceReferenceBase& reference) const;
    bool Match(const ServiceProperties& properties) const;
    bool Match(const detail::PropertyMap& properties) const;
    /// Attribute names must agree in case too.
    bool MatchCase(const ServiceProperties& properties) const;

    const std::string& ToString() const noexcept { return text_; }
    friend bool operator==(const LDAPFilter& a, const LDAPFilter& b) { return a.text_ == b.text_; }
    friend std::ostream& operator<<(std::ostream& out, const LDAPFilter& filter) { return out << filter.text_; }

private:
    struct Node;
    class Parser;

    std::string text_;
    std::shared_ptr<const Node> root_;
};

} // namespace us
