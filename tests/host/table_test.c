/* The module as a host written in C sees it: the exported record byte by byte, builtins, unloading. */

#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/matrix/vxarray.h"

#define MODULE "libzkconnectorusvendrahost"
#define ENTRIES 23

typedef void (*Gateway)(int nlhs, vxArray* plhs[], int nrhs, const vxArray* prhs[]);

static int failures = 0;

static void check(int ok, const char* what)
{
    if (!ok) {
        ++failures;
        fprintf(stderr, "FAILED: %s\n", what);
    }
}

static uint64_t littleEndian(const unsigned char* bytes, int width)
{
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = value << 8 | bytes[i];
    return value;
}

static int isMapped(const char* name)
{
    char line[4096];
    int found = 0;
    FILE* maps = fopen("/proc/self/maps", "r");
    while (maps && fgets(line, sizeof line, maps))
        found |= strstr(line, name) != NULL;
    if (maps)
        fclose(maps);
    return found;
}

static const char* text(void* module, const char* suffix)
{
    char name[128];
    snprintf(name, sizeof name, "%s_%s", MODULE, suffix);
    const char** data = (const char**)dlsym(module, name);
    return data ? *data : "(missing)";
}

static void checkTexts(void* module)
{
    const char* months = "JanFebMarAprMayJunJulAugSepOctNovDec";
    const char* date = text(module, "build_date");
    char month[4] = "";
    int day = 0, year = 0, numbers[4], end = 0;
    const char* version = text(module, "version");

    check(sscanf(version, "%d.%d.%d.%d%n", numbers, numbers + 1, numbers + 2, numbers + 3, &end) == 4 &&
              version[end] == '\0',
          "version is four dotted numbers");
    memcpy(month, date, 3);
    check(strlen(date) == 11 && strstr(months, month) && sscanf(date + 3, "%3d %4d", &day, &year) == 2 && day >= 1 &&
              day <= 31 && year >= 2026 && date[3] == ' ' && date[6] == ' ' && (day > 9 || date[4] == ' '),
          "build date is 'Mmm dd yyyy'");
    check(strcmp(text(module, "relative_path"), "bin\\win64\\" MODULE ".so") == 0, "relative path");
}

int main(int argc, char** argv)
{
    check(argc == 2, "usage: table_test MODULE.so");

    void* unused = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    check(unused && dlclose(unused) == 0, "dlclose");
    check(!isMapped(MODULE), "dlclose unloads a module that was never started");
    check(!isMapped("libzkconnector.so"), "dlclose unloads the service libraries");

    void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!module) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }

    const unsigned char* (*query)(void);
    *(void**)&query = dlsym(module, "QueryVDFcnTable_" MODULE);
    if (!query) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const unsigned char* record = query();
    const unsigned char signature[4] = {0x15, 0x53, 0x07, 0x94};
    check(query() == record, "the record is static");
    check(memcmp(record + 8, signature, 4) == 0, "signature");
    check(littleEndian(record + 12, 4) == 0, "reserved");
    check(littleEndian(record + 16, 8) > 1533672026, "build time is after the reference build's");
    check(littleEndian(record + 24, 8) == ENTRIES, "entry count");

    Gateway* entries = (Gateway*)(uintptr_t)littleEndian(record, 8);
    int filled = 0;
    while (filled < ENTRIES && entries[filled])
        ++filled;
    check(filled == ENTRIES, "23 entry points");
    check(entries[ENTRIES] == NULL, "a null word ends the array");
    checkTexts(module);

    /* setLogSpecification (23), start (1), executeCommand (20), listCommands (21), stop (2). */
    const vxArray* arguments[2] = {vxCreateString("error"), NULL};
    vxArray* results[1] = {NULL};
    entries[22](0, results, 1, arguments);
    check(results[0] == NULL, "a setter has no result");
    entries[0](0, results, 0, arguments);

    vxArray* list = vxCreateCell(1, 2);
    vxSetCell(list, 0, vxCreateString("a"));
    const vxArray* command[2] = {arguments[0], list};
    entries[19](1, results, 2, command);
    check(results[0] && vxGetClassID(results[0]) == vxCHAR_CLASS && vxGetNumberOfElements(results[0]) == 0,
          "executeCommand answers an empty text");
    vxDestroyArray(results[0]);
    results[0] = NULL;
    entries[20](1, results, 0, arguments);
    check(results[0] && vxGetClassID(results[0]) == vxCHAR_CLASS && vxGetNumberOfElements(results[0]) == 0,
          "listCommands answers an empty text");
    vxDestroyArray(results[0]);
    entries[1](0, results, 0, arguments);

    vxDestroyArray((vxArray*)(uintptr_t)arguments[0]);
    vxDestroyArray(list);

    check(isMapped(MODULE) && isMapped("libzkconnector.so"), "the module is mapped before it is unloaded");
    check(dlclose(module) == 0, "dlclose");
    check(isMapped(MODULE) && isMapped("libzkconnector.so"), "the host's shutdown list leads to what was started");
    if (failures == 0)
        puts("the table is in order");
    return failures != 0;
}
