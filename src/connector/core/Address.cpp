#include "connector/core/Address.h"

#include <ostream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace connector {

Address::Address(std::vector<std::string> parts) : parts_(std::move(parts))
{
    if (parts_.size() > kMaxParts)
        throw std::invalid_argument("An address has at most 8 parts, not " + std::to_string(parts_.size()) + ".");
    for (const auto& part : parts_)
        if (part.empty())
            throw std::invalid_argument("An address has no empty parts.");
}

std::ostream& operator<<(std::ostream& out, const Address& address)
{
    const char* separator = "";
    for (auto i = address.next_; i < address.parts_.size(); ++i) {
        out << separator << address.parts_[i];
        separator = " > ";
    }
    return out;
}

std::string toString(const Address& address)
{
    std::ostringstream text;
    text << address;
    return text.str();
}

} // namespace connector
