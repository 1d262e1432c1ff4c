#include "vendra/BuiltinTable.h"

#include <cstdint>
#include <cstdio>

#include <dlfcn.h>

namespace vendra {
namespace {

/// What the query function returns, byte for byte.
struct Record
{
    const BuiltinTable::Gateway* entries;
    std::uint32_t signature;
    std::uint32_t reserved;
    std::int64_t buildTime;
    std::uint64_t count;
};
static_assert(sizeof(Record) == 32);

constexpr std::uint32_t kSignature = 0x94075315;
constexpr const char* kQuery = "QueryVDFcnTable_libzkconnectorusvendrahost";
constexpr const char* kTextPrefix = "libzkconnectorusvendrahost_";

std::string hexadecimal(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
    return text;
}

class Library
{
public:
    explicit Library(const std::filesystem::path& file)
        : name_(file.string()), handle_(::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL))
    {
        if (!handle_)
            throw ModuleError("The module cannot be loaded: " + std::string(::dlerror()));
    }

    void* symbol(const std::string& symbol) const
    {
        void* address = ::dlsym(handle_, symbol.c_str());
        if (!address)
            fail("does not export " + symbol);
        return address;
    }

    std::string text(const std::string& subject) const
    {
        std::string full = kTextPrefix + subject;
        const char* value = *static_cast<const char* const*>(symbol(full));
        if (!value)
            fail("exports a null pointer as " + full);
        return value;
    }

    [[noreturn]] void fail(const std::string& what) const
    {
        throw ModuleError("The module " + name_ + " " + what + ".");
    }

private:
    std::string name_;
    void* handle_; // stays open: threads and shutdown objects of the module live as long as the process
};

} // namespace

const std::array<BuiltinTable::Builtin, BuiltinTable::kCount> BuiltinTable::kBuiltins = {{
    {"start", 0},
    {"stop", 0},
    {"startBundle", 1},
    {"startAllBundles", 0},
    {"stopBundle", 1},
    {"stopAllBundles", 0},
    {"loadService", 1},
    {"loadAllServices", 0},
    {"unloadService", 1},
    {"unloadAllServices", 0},
    {"reload", 0},
    {"restartBundle", 1},
    {"listAllBundleNames", 0},
    {"listAllServiceNames", 0},
    {"printAllBundles", 0},
    {"printBundleProperties", 1},
    {"printBundleServices", 1},
    {"printAllServices", 0},
    {"printServiceProperties", 1},
    {"executeCommand", 2},
    {"listCommands", 0},
    {"setLogDestination", 1},
    {"setLogSpecification", 1},
}};

BuiltinTable BuiltinTable::load(const std::filesystem::path& file)
{
    Library library(file);
    auto query = reinterpret_cast<const Record* (*)()>(library.symbol(kQuery));
    const Record* record = query();
    if (!record)
        library.fail("returns no builtin table");
    if (record->signature != kSignature)
        library.fail("has a builtin table with the signature " + hexadecimal(record->signature) + " instead of " +
                     hexadecimal(kSignature));
    if (record->reserved != 0)
        library.fail("has a builtin table whose reserved field is " + std::to_string(record->reserved) +
                     " instead of 0");
    if (record->count != kCount)
        library.fail("has " + std::to_string(record->count) + " builtins instead of " + std::to_string(kCount));
    if (!record->entries)
        library.fail("has a builtin table without entries");
    for (std::size_t i = 0; i < kCount; ++i)
        if (!record->entries[i])
            library.fail("has no builtin at position " + std::to_string(i + 1) + " (" + kBuiltins[i].name + ")");
    if (record->entries[kCount])
        library.fail("has a builtin table that does not end after " + std::to_string(kCount) + " entries");

    BuiltinTable table;
    table.entries_ = record->entries;
    table.version_ = library.text("version");
    table.buildDate_ = library.text("build_date");
    library.text("relative_path");
    return table;
}

} // namespace vendra
