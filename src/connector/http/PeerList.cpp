#include "connector/http/PeerList.h"

#include <algorithm>
#include <charconv>

#include <arpa/inet.h>

namespace connector::http {

bool PeerList::add(const std::string& text)
{
    const auto slash = text.find('/');
    Network network{};
    bool four = false;
    if (!parse(text.substr(0, slash), network.address, four))
        return false;
    const unsigned width = four ? 32 : 128;
    unsigned bits = width;
    if (slash != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data() + slash + 1, end, bits);
        if (error != std::errc() || rest != end || bits > width)
            return false;
    }
    network.bits = 128 - width + bits;
    networks_.push_back(network);
    return true;
}

bool PeerList::has(const std::string& address) const
{
    Bytes asked{};
    bool four = false;
    if (networks_.empty() || !parse(address, asked, four))
        return false;
    return std::any_of(networks_.begin(), networks_.end(), [&asked](const Network& network) {
        const auto whole = network.bits / 8;
        if (!std::equal(asked.begin(), asked.begin() + whole, network.address.begin()))
            return false;
        const unsigned left = network.bits % 8;
        return left == 0 || (asked[whole] >> (8 - left)) == (network.address[whole] >> (8 - left));
    });
}

/// All as IPv6, IPv4 mapped into it.
bool PeerList::parse(const std::string& text, Bytes& address, bool& four)
{
    in_addr short4{};
    four = inet_pton(AF_INET, text.c_str(), &short4) == 1;
    if (!four)
        return inet_pton(AF_INET6, text.c_str(), address.data()) == 1;
    address = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&short4.s_addr);
    std::copy(bytes, bytes + 4, address.begin() + 12);
    return true;
}

} // namespace connector::http
