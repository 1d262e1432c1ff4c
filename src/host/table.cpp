#include <cstdint>

#include "host/BuildInfo.h"
#include "host/builtins.h"

// What the library exports: the builtin table and three texts about the build.

#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

namespace host {
namespace {

// In the host's order; the null word ends the array.
Gateway* entries[] = {
    start,
    stop,
    startBundle,
    startAllBundles,
    stopBundle,
    stopAllBundles,
    loadService,
    loadAllServices,
    unloadService,
    unloadAllServices,
    reload,
    restartBundle,
    listAllBundleNames,
    listAllServiceNames,
    printAllBundles,
    printBundleProperties,
    printBundleServices,
    printAllServices,
    printServiceProperties,
    executeCommand,
    listCommands,
    setLogDestination,
    setLogSpecification,
    nullptr,
};

constexpr std::uint64_t kEntryCount = sizeof entries / sizeof *entries - 1;
static_assert(kEntryCount == 23);

/// Read by the host as it lies in memory.
struct Table
{
    Gateway** entries;
    std::uint32_t signature;
    std::uint32_t reserved;
    std::uint64_t buildTime; ///< seconds since 1970-01-01 UTC
    std::uint64_t entryCount;
};
static_assert(sizeof(Table) == 32);

Table table{entries, 0x94075315, 0, CONNECTOR_BUILD_TIME, kEntryCount};

} // namespace
} // namespace host

MODULE_EXPORT void* QueryVDFcnTable_libzkconnectorusvendrahost() { return &host::table; }

MODULE_EXPORT const char* libzkconnectorusvendrahost_version;
const char* libzkconnectorusvendrahost_version = CONNECTOR_VERSION;

MODULE_EXPORT const char* libzkconnectorusvendrahost_build_date;
const char* libzkconnectorusvendrahost_build_date = CONNECTOR_BUILD_DATE;

MODULE_EXPORT const char* libzkconnectorusvendrahost_relative_path;
const char* libzkconnectorusvendrahost_relative_path = "bin\\win64\\libzkconnectorusvendrahost.so";
