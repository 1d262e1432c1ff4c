#pragma once

#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::http {

/// The secret by which programs of the same user get in ("Authorization: Bearer …"). It changes with every process and
/// is told through the discovery file only; it is never logged. Threads: any.
class CONNECTOR_API AccessToken
{
public:
    /// Made on first use, from 256 bits of the operating system. Throws std::runtime_error when it has none.
    static const AccessToken& ofProcess();

    /// 64 hexadecimal digits.
    const std::string& text() const noexcept { return text_; }
    /// In a time that tells nothing about the token.
    bool matches(std::string_view candidate) const;

private:
    AccessToken();

    std::string text_;
    std::string digest_;
};

} // namespace connector::http
