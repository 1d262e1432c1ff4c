#pragma once

#include <stdexcept>
#include <string>

#include <boost/regex.hpp>

namespace connector::http {

/// Whether the expression matches the whole text. One that is too expensive on this text does not.
inline bool matchesWhole(const std::string& text, const boost::regex& expression)
{
    try {
        return boost::regex_match(text, expression);
    } catch (const std::runtime_error&) {
        return false;
    }
}

} // namespace connector::http
