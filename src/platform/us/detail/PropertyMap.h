#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/us/Any.h"

namespace us::detail {

/// ASCII, as property names are.
inline char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

struct CaseInsensitiveLess
{
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const
    {
        const std::size_t common = a.size() < b.size() ? a.size() : b.size();
        for (std::size_t i = 0; i < common; ++i)
            if (lower(a[i]) != lower(b[i]))
                return lower(a[i]) < lower(b[i]);
        return a.size() < b.size();
    }
};

inline bool equalIgnoringCase(std::string_view a, std::string_view b)
{
    const CaseInsensitiveLess less;
    return !less(a, b) && !less(b, a);
}

using PropertyMap = std::map<std::string, Any, CaseInsensitiveLess>;
/// Properties are replaced as a whole, never changed: a reader keeps the ones it took.
using PropertyMapPtr = std::shared_ptr<const PropertyMap>;

/// Throws std::invalid_argument when two keys differ only in case.
template <class Source>
PropertyMap toPropertyMap(const Source& source)
{
    PropertyMap map;
    for (const auto& [key, value] : source)
        if (!map.emplace(key, value).second)
            throw std::invalid_argument("Properties contain case variants of the key: " + key);
    return map;
}

/// Empty when there is no such key.
inline Any valueOf(const PropertyMap& map, std::string_view key)
{
    const auto found = map.find(key);
    return found == map.end() ? Any() : found->second;
}

} // namespace us::detail
