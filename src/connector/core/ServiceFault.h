#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "connector/Export.h"

namespace connector {

/// A failure that is meant for the client: a stable code to act on, a text to read, and details by name.
/// Codes in use are listed in docs/protocol.md.
class CONNECTOR_API ServiceFault : public std::runtime_error
{
public:
    using Details = std::map<std::string, std::string>;

    /// Texts are UTF-8; no detail is called "type", "id", "code" or "message".
    ServiceFault(std::string code, const std::string& message, Details details = {});
    ~ServiceFault() override;
    ServiceFault(const ServiceFault&) = default;
    ServiceFault& operator=(const ServiceFault&) = default;

    const std::string& code() const noexcept { return code_; }
    const Details& details() const noexcept { return details_; }

private:
    std::string code_;
    Details details_;
};

} // namespace connector
