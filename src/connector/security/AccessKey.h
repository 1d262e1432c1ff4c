#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "connector/Export.h"

namespace connector::security::v1 {

/// A secret that the user put into a file, which lets in like the token of the process and outlives it. Threads: any.
class CONNECTOR_API AccessKey
{
public:
    static constexpr std::size_t kMinCharacters = 32;
    static constexpr std::size_t kMaxFileBytes = 4'096;

    /// Reads the file. Throws std::runtime_error that names it and says what is wrong: it cannot be read, is no regular
    /// file, belongs to somebody else, may be read or written by others, is too large, or holds less than
    /// kMinCharacters, or others than visible ASCII characters, between white space at both ends.
    explicit AccessKey(const std::filesystem::path& file);

    /// In a time that tells nothing about the key.
    bool matches(std::string_view candidate) const;

private:
    std::string digest_;
};

} // namespace connector::security::v1
