#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "connector/Export.h"

namespace connector::http {

/// IP addresses and networks. IPv4 addresses and those mapped into IPv6 ("::ffff:10.0.0.1") are the same.
class CONNECTOR_API PeerList
{
public:
    /// Adds an address ("10.0.0.1", "fd00::1") or a network ("10.0.0.0/8", "fd00::/8"), whose host bits do not count.
    /// False for anything else.
    [[nodiscard]] bool add(const std::string& text);
    /// `address`: numeric. False for what is no address.
    bool has(const std::string& address) const;

private:
    using Bytes = std::array<std::uint8_t, 16>;
    struct Network
    {
        Bytes address;
        unsigned bits;
    };

    static bool parse(const std::string& text, Bytes& address, bool& four);

    std::vector<Network> networks_;
};

} // namespace connector::http
