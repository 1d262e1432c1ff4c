#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::http::client {

/// An http or https URL taken apart; the fragment is dropped. Failures: std::invalid_argument with a text that names
/// the URL without its query and without user information.
struct CONNECTOR_API Url
{
    bool secure = false;
    std::string host; ///< in lower case, an IPv6 address in brackets
    std::uint16_t port = 0;
    std::string target; ///< path and query, starts with "/"

    static Url parse(std::string_view text);
    /// What a reference (relative or not) in an answer of this URL means. Spaces and bytes above ASCII in it are
    /// encoded, since servers send them.
    Url resolve(std::string_view reference) const;

    std::string text() const;
    std::string shown() const;     ///< for people: without the query
    std::string authority() const; ///< for Host: with the port where it is not the scheme's own
    std::string endpoint() const;  ///< always with the port
    std::string bareHost() const;  ///< without brackets
    bool isAddress() const;        ///< the host is an IP address, no name
    bool sameOrigin(const Url& other) const;
};

} // namespace connector::http::client
