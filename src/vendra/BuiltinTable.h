#pragma once

#include <array>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/matrix/vxarray.h"

namespace vendra {

/// The module's file cannot be loaded, or it is not what this host understands.
class ModuleError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The module's builtins, loaded for the rest of the process. Cheap to copy.
class BuiltinTable
{
public:
    using Gateway = void (*)(int resultCount, vxArray* results[], int argumentCount, const vxArray* arguments[]);

    struct Builtin
    {
        const char* name;
        std::size_t arguments;
    };
    static constexpr std::size_t kCount = 23;
    /// The names that scripts use, in the order of the table.
    static const std::array<Builtin, kCount> kBuiltins;

    /// Loads the library and checks its exports. ModuleError names the file and what is wrong with it.
    static BuiltinTable load(const std::filesystem::path& file);

    /// `index`: 0 … kCount-1.
    Gateway gateway(std::size_t index) const { return entries_[index]; }
    const std::string& version() const noexcept { return version_; }
    const std::string& buildDate() const noexcept { return buildDate_; }

private:
    const Gateway* entries_ = nullptr;
    std::string version_;
    std::string buildDate_;
};

} // namespace vendra
