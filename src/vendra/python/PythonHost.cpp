#include "vendra/python/PythonHost.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include <pthread.h>

#include "vendra/python/ConnectorModule.h"
#include "vendra/python/Conversion.h"
#include "vendra/python/InterruptHandler.h"
#include "vendra/python/Object.h"
#include "vendra/python/OutputCapture.h"
#include "vendra/python/PythonInterpreter.h"
#include "vendra/python/Support.h"

#if defined(__SANITIZE_ADDRESS__)
// The language keeps part of its memory to the very end, and the line editor never frees the names of added functions.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:libpython3.11\nleak:wcsdup\n"; }
#endif

namespace vendra::python {
namespace {

/// Breaks what runs where the keyboard's signal cannot. One that nobody else has a use for.
int breakSignal() { return SIGRTMIN + 11; }

constexpr const char* kOwnCapsule = "vendra.host";

void checkStatus(const PyStatus& status)
{
    if (PyStatus_Exception(status))
        throw std::runtime_error(std::string("The script language cannot start: ") +
                                 (status.err_msg ? status.err_msg : "no reason given"));
}

class Config
{
public:
    Config() { PyConfig_InitPythonConfig(&config_); }
    ~Config() { PyConfig_Clear(&config_); }
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    PyConfig& operator*() noexcept { return config_; }
    void set(wchar_t** field, const std::string& value)
    {
        checkStatus(PyConfig_SetBytesString(&config_, field, value.c_str()));
    }

private:
    PyConfig config_;
};

/// The interpreter of the virtual environment that is activated, if it is one of this language's version.
std::optional<std::filesystem::path> virtualInterpreter()
{
    const char* named = std::getenv("VIRTUAL_ENV");
    const std::filesystem::path folder = named ? named : "";
    if (!folder.is_absolute())
        return std::nullopt;
    std::error_code none;
    const std::string version = "python" + std::to_string(PY_MAJOR_VERSION) + "." + std::to_string(PY_MINOR_VERSION);
    const auto interpreter = folder / "bin" / "python3";
    if (std::filesystem::exists(folder / "pyvenv.cfg", none) && std::filesystem::exists(interpreter, none) &&
        std::filesystem::is_directory(folder / "lib" / version, none))
        return interpreter;
    std::fprintf(stderr, "vendra: VIRTUAL_ENV: %s is no environment for Python %d.%d, and left aside.\n",
                 folder.c_str(), PY_MAJOR_VERSION, PY_MINOR_VERSION);
    return std::nullopt;
}

void initialize(const PythonHost::Settings& settings)
{
    Config config;
    PyConfig& fields = *config;
    // Named outright, so that neither the PATH nor PYTHONHOME leads to another installation's library. What an
    // activated virtual environment has installed stands beside its interpreter.
    std::filesystem::path executable = VENDRA_PYTHON_EXECUTABLE;
    const std::string program = virtualInterpreter().value_or(executable).string();
    config.set(&fields.program_name, program);
    config.set(&fields.executable, program);
    config.set(&fields.base_executable, executable.string());
    config.set(&fields.home, executable.parent_path().parent_path().string());
    fields.isolated = 0;
    fields.parse_argv = 0;
    fields.install_signal_handlers = 1;
    fields.interactive = settings.interactive ? 1 : 0;
    std::vector<char*> arguments;
    for (const std::string& argument : settings.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    checkStatus(PyConfig_SetBytesArgv(&fields, static_cast<Py_ssize_t>(arguments.size()), arguments.data()));
    checkStatus(Py_InitializeFromConfig(&fields));
}

Ref loadSupport()
{
    Ref module = Ref::own(PyModule_New("_vendra"));
    PyObject* names = PyModule_GetDict(module.get());
    check(PyDict_SetItemString(names, "__builtins__", PyEval_GetBuiltins()));
    if (PyImport_GetMagicNumber() != kSupportMagic)
        throw std::runtime_error("The host was built with another version of the script language: build it again.");
    for (const CompiledText& text : kSupport) {
        Ref code = loadCompiled(text);
        Ref::own(PyEval_EvalCode(code.get(), names, names));
    }
    PyObject* const shared = PyInterpreterState_GetDict(PyInterpreterState_Get()); // borrowed
    check(PyDict_SetItemString(shared, kSupportName, names));
    return module;
}

class Locked
{
public:
    Locked() : state_(PyGILState_Ensure()) {}
    ~Locked() { PyGILState_Release(state_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    PyGILState_STATE state_;
};

/// While it stands no garbage is collected, on whichever thread. A script that switches collecting off just then finds
/// it on again.
class NoCollection
{
public:
    NoCollection() : collects_(PyGC_Disable() != 0) {}
    ~NoCollection()
    {
        if (collects_)
            PyGC_Enable();
    }
    NoCollection(const NoCollection&) = delete;
    NoCollection& operator=(const NoCollection&) = delete;

private:
    const bool collects_;
};

} // namespace

class PythonHost::Impl
{
public:
    explicit Impl(const Settings& settings);

    Ref callSupport(const char* name, std::initializer_list<PyObject*> arguments);
    /// Calls a function of support/ that answers (leave, status).
    Outcome run(const char* name, std::initializer_list<PyObject*> arguments);
    void breakRunning();
    void discardBreak();
    bool isBreakRequested() const noexcept { return breakRequested_; }
    Signal takeSignals();
    /// For errors in the host's own few lines, which only a signal can cause: keeps an interrupt for takeSignals, and
    /// says whether it was one. Other errors are reported.
    bool clearError();

    PyThreadState* mainThread = nullptr; ///< set while no code of the main thread holds the lock
    /// Gives the wake-up descriptor of signals to the code that is to run.
    void disarm();
    /// Takes it back, which is two calls of the system: only once nothing more is to run.
    void arm();
    /// For what came and was not handled.
    void noteSignals();
    bool isArmed() const noexcept { return armed_ || !wakeDescriptor_; }
    void setWakeDescriptor(int descriptor);
    void dropReferences();

    OutputCapture capture;
    Ref support;
    std::unique_ptr<PythonInterpreter> interpreter;
    std::unique_ptr<PythonInterpreter> looker; ///< for the looking thread
    std::optional<int> leaveStatus;
    bool interruptNoted = false;

private:
    static Impl& self(PyObject* capsule) { return *static_cast<Impl*>(PyCapsule_GetPointer(capsule, kOwnCapsule)); }
    static PyObject* terminate(PyObject* capsule, PyObject* arguments);
    static PyObject* breakRequested(PyObject* capsule, PyObject*);
    void installSignals();
    void setLanguageDescriptor(PyObject* descriptor);

    Ref setWakeFunction_;
    Ref wakeDescriptor_; ///< an int; empty when there is none
    Ref noDescriptor_;
    bool armed_ = false;
    const pthread_t thread_ = ::pthread_self();
    void (*languageHandler_)(int) = nullptr; ///< of signals for which the language has functions
    std::atomic<bool> breakRequested_ = false;
};

/// Around code of scripts and tasks.
class PythonHost::Running
{
public:
    explicit Running(Impl& impl) : impl_(impl) { impl_.disarm(); }
    ~Running()
    {
        removeDebuggersInterruptHandler(impl_.support.get());
        impl_.noteSignals();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    Locked locked_;
    Impl& impl_;
};

PythonHost::Impl::Impl(const Settings& settings)
{
    registerConnectorModule();
    initialize(settings);
    try {
        support = loadSupport();
        setForms(support.get());
        capture.install(support.get());
        installSignals();
    } catch (const ErrorSet&) {
        PyErr_Print();
        throw std::runtime_error("The script language cannot be prepared.");
    }
    interpreter = std::make_unique<PythonInterpreter>(Ref::share(support.get()), &capture);
    looker = std::make_unique<PythonInterpreter>(Ref::share(support.get()), nullptr);
    mainThread = PyEval_SaveThread();
}

void PythonHost::Impl::installSignals()
{
    static PyMethodDef terminateMethod = {"terminate", &Impl::terminate, METH_VARARGS, nullptr};
    static PyMethodDef breakMethod = {"break_requested", &Impl::breakRequested, METH_NOARGS, nullptr};
    Ref capsule = Ref::own(PyCapsule_New(this, kOwnCapsule, nullptr));
    Ref terminator = Ref::own(PyCFunction_New(&terminateMethod, capsule.get()));
    Ref number = Ref::own(PyLong_FromLong(breakSignal()));
    Ref asker = Ref::own(PyCFunction_New(&breakMethod, capsule.get()));
    setWakeFunction_ = callSupport("install_signals", {terminator.get(), number.get(), asker.get()});
    noDescriptor_ = Ref::own(PyLong_FromLong(-1));
    struct sigaction action = {};
    ::sigaction(breakSignal(), nullptr, &action);
    languageHandler_ = action.sa_handler;
}

void PythonHost::Impl::setLanguageDescriptor(PyObject* descriptor)
{
    PyObject* arguments[] = {descriptor};
    PyObject* former = PyObject_Vectorcall(setWakeFunction_.get(), arguments, 1, nullptr);
    if (!former)
        PyErr_WriteUnraisable(setWakeFunction_.get());
    Py_XDECREF(former);
}

void PythonHost::Impl::setWakeDescriptor(int descriptor)
{
    wakeDescriptor_ = descriptor < 0 ? Ref{} : Ref::own(PyLong_FromLong(descriptor));
    armed_ = descriptor >= 0;
    setLanguageDescriptor(wakeDescriptor_ ? wakeDescriptor_.get() : noDescriptor_.get());
}

void PythonHost::Impl::dropReferences()
{
    interpreter.reset();
    looker.reset();
    clearForms();
    for (Ref* reference : {&support, &setWakeFunction_, &wakeDescriptor_, &noDescriptor_})
        *reference = Ref{};
}

void PythonHost::Impl::disarm()
{
    if (std::exchange(armed_, false))
        setLanguageDescriptor(noDescriptor_.get());
}

void PythonHost::Impl::arm()
{
    setLanguageDescriptor(wakeDescriptor_.get());
    armed_ = true;
    noteSignals(); // that came before
}

void PythonHost::Impl::noteSignals()
{
    if (wakeDescriptor_ && takeSignals() == Signal::interrupt)
        interruptNoted = true;
}

PyObject* PythonHost::Impl::terminate(PyObject* capsule, PyObject* arguments)
{
    int number = 0;
    PyObject* frame = nullptr;
    if (!PyArg_ParseTuple(arguments, "iO", &number, &frame))
        return nullptr;
    self(capsule).leaveStatus = 128 + number;
    Ref status = Ref::share(PyLong_FromLong(128 + number));
    PyErr_SetObject(PyExc_SystemExit, status.get());
    return nullptr;
}

PyObject* PythonHost::Impl::breakRequested(PyObject* capsule, PyObject*)
{
    return PyBool_FromLong(self(capsule).breakRequested_.exchange(false));
}

void PythonHost::Impl::breakRunning()
{
    breakRequested_ = true;
    struct sigaction action = {};
    ::sigaction(SIGINT, nullptr, &action);
    // A script may have given the keyboard's signal back to the system, a shell starts what runs in the background with
    // it ignored, and libraries of C code take it: then it would kill the process, or do nothing that breaks the code.
    ::pthread_kill(thread_, action.sa_handler == languageHandler_ ? SIGINT : breakSignal());
}

void PythonHost::Impl::discardBreak()
{
    // A signal sent to this thread is delivered at the latest on the way out of a system call.
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    takeSignals();
    interruptNoted = false;
    breakRequested_ = false;
}

PythonHost::Signal PythonHost::Impl::takeSignals()
{
    if (std::exchange(interruptNoted, false))
        return Signal::interrupt;
    if (PyErr_CheckSignals() == 0)
        return leaveStatus ? Signal::leave : Signal::none;
    Ref error = takeError();
    if (PyErr_GivenExceptionMatches(error.get(), PyExc_KeyboardInterrupt))
        return Signal::interrupt;
    try {
        if (PyErr_GivenExceptionMatches(error.get(), PyExc_SystemExit)) {
            Ref status = callSupport("exit_status", {error.get()});
            if (!leaveStatus)
                leaveStatus = static_cast<int>(PyLong_AsLong(status.get()));
            return Signal::leave;
        }
        callSupport("show", {error.get()});
    } catch (const ErrorSet&) {
        PyErr_Print();
    }
    return leaveStatus ? Signal::leave : Signal::none;
}

bool PythonHost::Impl::clearError()
{
    bool interrupted = PyErr_ExceptionMatches(PyExc_KeyboardInterrupt);
    interruptNoted = interruptNoted || interrupted;
    if (interrupted || PyErr_ExceptionMatches(PyExc_SystemExit))
        PyErr_Clear(); // the exit's status is noted already
    else
        PyErr_Print();
    return interrupted;
}

Ref PythonHost::Impl::callSupport(const char* name, std::initializer_list<PyObject*> arguments)
{
    Ref function = Ref::own(PyObject_GetAttrString(support.get(), name));
    return Ref::own(PyObject_Vectorcall(function.get(), arguments.begin(), arguments.size(), nullptr));
}

PythonHost::Outcome PythonHost::Impl::run(const char* name, std::initializer_list<PyObject*> arguments)
try {
    Ref answer = callSupport(name, arguments);
    Outcome outcome;
    outcome.leave = PyTuple_GET_ITEM(answer.get(), 0) == Py_True;
    outcome.status = static_cast<int>(PyLong_AsLong(PyTuple_GET_ITEM(answer.get(), 1)));
    if (leaveStatus)
        outcome = {true, *leaveStatus};
    return outcome;
} catch (const ErrorSet&) {
    // Only what interrupts the few lines around the code gets here.
    bool interrupted = clearError();
    if (leaveStatus)
        return {true, *leaveStatus};
    return {false, interrupted ? 130 : 1};
}

PythonHost::PythonHost(const Settings& settings) : impl_(std::make_unique<Impl>(settings)) {}

PythonHost::~PythonHost()
{
    // After finish no reference is left, and there is no lock to take.
    if (!Py_IsInitialized())
        return;
    Locked locked;
    impl_.reset();
}

void PythonHost::withInterpreter(const std::function<void(rqe::Interpreter&)>& body)
{
    Running running(*impl_);
    body(*impl_->interpreter);
}

void PythonHost::withLook(const std::function<void(rqe::Interpreter&)>& body)
{
    // Signals and their descriptor are the interpreter thread's business: the language handles them nowhere else.
    Locked locked;
    // What collecting ends may belong to the interpreter thread: a window, a database connection.
    NoCollection noCollection;
    body(*impl_->looker);
}

void PythonHost::breakRunning() { impl_->breakRunning(); }

void PythonHost::discardBreak() { impl_->discardBreak(); }

PythonHost::Outcome PythonHost::runFile(const std::string& path)
{
    Running running(*impl_);
    Ref text = Ref::own(PyUnicode_DecodeFSDefault(path.c_str()));
    return impl_->run("run_file", {text.get()});
}

PythonHost::Outcome PythonHost::runModule(const std::string& name)
{
    Running running(*impl_);
    Ref text = Ref::own(PyUnicode_DecodeFSDefault(name.c_str()));
    return impl_->run("run_module", {text.get()});
}

PythonHost::Outcome PythonHost::runStartup()
{
    Running running(*impl_);
    return impl_->run("run_startup", {});
}

PythonHost::Outcome PythonHost::runSource(const std::string& code, const std::string& fileName)
{
    Running running(*impl_);
    Ref bytes = Ref::own(PyBytes_FromStringAndSize(code.data(), static_cast<Py_ssize_t>(code.size())));
    Ref name = makeText(fileName);
    return impl_->run("run_source", {bytes.get(), name.get()});
}

PythonHost::Outcome PythonHost::startConnector()
{
    Running running(*impl_);
    return impl_->run("start_connector", {});
}

void PythonHost::prepareInteractive(bool withPrompts)
{
    Locked locked;
    try {
        impl_->callSupport("prepare_interactive", {withPrompts ? Py_True : Py_False});
    } catch (const ErrorSet&) {
        impl_->clearError();
    }
}

std::string PythonHost::prompt(bool continued)
{
    Locked locked;
    try {
        return textOf(impl_->callSupport("prompt", {continued ? Py_True : Py_False}).get());
    } catch (const ErrorSet&) {
        impl_->clearError();
        return continued ? "... " : ">>> ";
    }
}

PythonHost::LineState PythonHost::compileLine(const std::string& source)
{
    Locked locked;
    try {
        Ref text = makeText(source);
        Ref answer = impl_->callSupport("compile_line", {text.get()});
        if (answer.get() == Py_None)
            return LineState::incomplete;
        return answer.get() == Py_True ? LineState::ready : LineState::wrong;
    } catch (const ErrorSet&) {
        impl_->clearError();
        return LineState::wrong;
    }
}

PythonHost::Outcome PythonHost::runLine()
{
    Running running(*impl_);
    return impl_->run("run_line", {});
}

bool PythonHost::leadsDescriptors() const noexcept { return impl_->capture.leadsDescriptors(); }

void PythonHost::giveBackDescriptors() { impl_->capture.giveBackDescriptors(); }

bool PythonHost::prepareAhead()
{
    Locked locked;
    try {
        return impl_->callSupport("prepare_ahead", {}).get() == Py_True;
    } catch (const ErrorSet&) {
        impl_->clearError();
        return false;
    }
}

bool PythonHost::hasWindows() const { return PyOS_InputHook != nullptr; }

void PythonHost::serveWindows()
{
    Running running(*impl_);
    try {
        impl_->callSupport("serve_windows", {});
    } catch (const ErrorSet&) {
        impl_->clearError();
    }
}

PythonHost::Signal PythonHost::takeSignals()
{
    Locked locked;
    return impl_->takeSignals();
}

std::optional<int> PythonHost::leaveStatus() const { return impl_->leaveStatus; }

void PythonHost::onKeyboardInterrupt(std::function<void()> told)
{
    impl_->interpreter->onInterrupted([impl = impl_.get(), told = std::move(told)] {
        if (!impl->isBreakRequested())
            told();
    });
}

bool PythonHost::signalNoted() const { return impl_->interruptNoted; }

void PythonHost::setWakeDescriptor(int descriptor)
{
    Locked locked;
    impl_->setWakeDescriptor(descriptor);
}

void PythonHost::expectSignals()
{
    if (impl_->isArmed())
        return;
    Locked locked;
    impl_->arm();
}

void PythonHost::letNextSignalKill()
{
    Locked locked;
    try {
        impl_->callSupport("let_next_signal_kill", {});
    } catch (const ErrorSet&) {
        PyErr_Clear();
    }
}

void PythonHost::endScripts()
{
    Running running(*impl_);
    for (const char* step : {"end_threads", "run_exit_functions"}) {
        try {
            impl_->callSupport(step, {});
        } catch (const ErrorSet&) {
            impl_->clearError(); // a signal cuts the wait short
        }
    }
}

void PythonHost::closeConnector() { closeConnectorModule(); }

int PythonHost::finish(int status)
{
    PyEval_RestoreThread(impl_->mainThread);
    impl_->dropReferences();
    return Py_FinalizeEx() < 0 ? 120 : status;
}

} // namespace vendra::python
