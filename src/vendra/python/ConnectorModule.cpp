#include "vendra/python/ConnectorModule.h"

#include <array>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/fl/filesystem.h"
#include "vendra/BuiltinTable.h"
#include "vendra/python/Bus.h"
#include "vendra/python/Conversion.h"
#include "vendra/python/Object.h"

namespace vendra::python {
namespace {

struct ModuleState
{
    BuiltinTable* table;
};

ModuleState& stateOf(PyObject* module) { return *static_cast<ModuleState*>(PyModule_GetState(module)); }

/// Lets other threads of the language run, and makes threads that a builtin starts inherit a mask without the signals
/// that are the interpreter thread's own. A signal that comes meanwhile is taken afterwards.
class NativeCode
{
public:
    NativeCode() : thread_(PyEval_SaveThread())
    {
        sigset_t own;
        sigemptyset(&own);
        for (int number : {SIGINT, SIGTERM, SIGHUP})
            sigaddset(&own, number);
        pthread_sigmask(SIG_BLOCK, &own, &mask_);
    }
    ~NativeCode()
    {
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        PyEval_RestoreThread(thread_);
    }
    NativeCode(const NativeCode&) = delete;
    NativeCode& operator=(const NativeCode&) = delete;

private:
    PyThreadState* thread_;
    sigset_t mask_;
};

/// The way into the builtins: the host goes down while none runs, and none comes after.
class Gate
{
public:
    class Pass
    {
    public:
        explicit Pass(Gate& gate) : gate_(gate)
        {
            std::lock_guard lock(gate_.mutex_);
            if (gate_.closed_)
                throw std::runtime_error("The host is going down.");
            ++gate_.inside_;
        }
        ~Pass()
        {
            std::lock_guard lock(gate_.mutex_);
            --gate_.inside_;
            gate_.left_.notify_all();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        Gate& gate_;
    };

    void close()
    {
        std::unique_lock lock(mutex_);
        closed_ = true;
        left_.wait(lock, [this] { return inside_ == 0; });
    }

    bool isClosed() const
    {
        std::lock_guard lock(mutex_);
        return closed_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable left_;
    int inside_ = 0;
    bool closed_ = false;
};

Gate gate;

constexpr std::size_t kStop = 1;

Ref callBuiltin(const BuiltinTable& table, std::size_t index, PyObject* const* values, std::size_t count)
{
    if (index == kStop && gate.isClosed())
        return Ref::share(Py_None);
    std::vector<matrix::ArrayPtr> arguments;
    for (std::size_t i = 0; i < count; ++i)
        arguments.push_back(toArray(values[i]));
    // Builtins read their first two arguments without asking for the count.
    std::vector<const vxArray*> pointers(std::max<std::size_t>(count, 2), nullptr);
    for (std::size_t i = 0; i < count; ++i)
        pointers[i] = arguments[i].get();

    matrix::ArrayPtr result;
    {
        NativeCode native;
        const Gate::Pass pass(gate);
        vxArray* slots[1] = {nullptr};
        try {
            table.gateway(index)(1, slots, static_cast<int>(count), pointers.data());
        } catch (...) {
            vxDestroyArray(slots[0]);
            throw;
        }
        result.reset(slots[0]);
        arguments.clear();
    }
    return toObject(result.get());
}

template <std::size_t Index>
PyObject* builtin(PyObject* module, PyObject* const* values, Py_ssize_t count)
try {
    const BuiltinTable::Builtin& self = BuiltinTable::kBuiltins[Index];
    if (static_cast<std::size_t>(count) != self.arguments) {
        PyErr_Format(PyExc_TypeError, "%s() takes %zu argument%s (%zd given)", self.name, self.arguments,
                     self.arguments == 1 ? "" : "s", count);
        return nullptr;
    }
    return callBuiltin(*stateOf(module).table, Index, values, self.arguments).release();
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

template <std::size_t... Index>
std::array<PyMethodDef, sizeof...(Index) + 1> makeMethods(std::index_sequence<Index...>)
{
    return {{{BuiltinTable::kBuiltins[Index].name,
              reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&builtin<Index>)), METH_FASTCALL, nullptr}...,
             {nullptr, nullptr, 0, nullptr}}};
}

int load(PyObject* module)
try {
    namespace paths = fl::filesystem;
    paths::wpath root = paths::get_install_path();
    if (root.empty())
        throw ModuleError("The installation root is not known; VENDRA_ROOT may name it.");
    paths::wpath file = paths::detail::concatenate_pathname(root, L"bin/win64/libzkconnectorusvendrahost.so");
    auto table = std::make_unique<BuiltinTable>(BuiltinTable::load(paths::toNative(file)));
    check(PyModule_AddStringConstant(module, "VERSION", table->version().c_str()));
    check(PyModule_AddStringConstant(module, "BUILD_DATE", table->buildDate().c_str()));
    addBusFunctions(module);
    stateOf(module).table = table.release();
    return 0;
} catch (const ModuleError& error) {
    PyErr_SetString(PyExc_ImportError, error.what());
    return -1;
} catch (...) {
    setErrorFromCurrentException();
    return -1;
}

void freeState(void* module)
{
    ModuleState& state = stateOf(static_cast<PyObject*>(module));
    delete std::exchange(state.table, nullptr);
}

PyObject* initialize()
{
    static std::array<PyMethodDef, BuiltinTable::kCount + 1> methods =
        makeMethods(std::make_index_sequence<BuiltinTable::kCount>());
    static std::array<PyModuleDef_Slot, 2> slots = {{{Py_mod_exec, reinterpret_cast<void*>(&load)}, {0, nullptr}}};
    static PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                                     "connector",
                                     "Starts, stops and administers the connector framework of this process.",
                                     sizeof(ModuleState),
                                     methods.data(),
                                     slots.data(),
                                     nullptr,
                                     nullptr,
                                     freeState};
    return PyModuleDef_Init(&definition);
}

} // namespace

void closeConnectorModule() { gate.close(); }

void registerConnectorModule()
{
    if (PyImport_AppendInittab("connector", &initialize) < 0)
        throw std::bad_alloc();
}

} // namespace vendra::python
