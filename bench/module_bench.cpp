// How long the framework takes to start and stop, and what a builtin costs, through the module's table.

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>

#include "platform/fl/filesystem.h"
#include "platform/matrix/vxarray.h"

namespace {

using Gateway = void (*)(int, vxArray*[], int, const vxArray*[]);

constexpr int kStart = 0;
constexpr int kStop = 1;
constexpr int kListCommands = 20;

Gateway* loadEntries()
{
    const auto path = fl::filesystem::toNative(fl::filesystem::get_install_path()) / "bin" / "win64" /
                      "libzkconnectorusvendrahost.so";
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module)
        throw std::runtime_error(dlerror());
    return *reinterpret_cast<Gateway** (*)()>(dlsym(module, "QueryVDFcnTable_libzkconnectorusvendrahost"))();
}

void call(int position, bool hasResult = false)
{
    static Gateway* const entries = loadEntries();
    vxArray* results[1] = {nullptr};
    const vxArray* arguments[2] = {nullptr, nullptr};
    entries[position](hasResult, results, 0, arguments);
    vxDestroyArray(results[0]);
}

void startOnly(benchmark::State& state)
{
    call(kStart);
    call(kStop);
    for (auto _ : state) {
        call(kStart);
        state.PauseTiming();
        call(kStop);
        state.ResumeTiming();
    }
}
BENCHMARK(startOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

void startAndStop(benchmark::State& state)
{
    for (auto _ : state) {
        call(kStart);
        call(kStop);
    }
}
BENCHMARK(startAndStop)->Unit(benchmark::kMillisecond)->UseRealTime();

/// A builtin that takes the lock, finds the framework started and makes a result.
void builtinCall(benchmark::State& state)
{
    call(kStart);
    for (auto _ : state)
        call(kListCommands, true);
    call(kStop);
}
BENCHMARK(builtinCall)->Unit(benchmark::kNanosecond);

} // namespace

BENCHMARK_MAIN();
