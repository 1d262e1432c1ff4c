#include "vendra/python/Bus.h"

#include <deque>
#include <memory>
#include <mutex>

#include "platform/rqe/MessageBus.h"
#include "platform/rqe/ProcessSession.h"
#include "vendra/python/Support.h"

namespace vendra::python {
namespace {

constexpr std::size_t kMaxWaiting = 10'000;
constexpr const char* kHandleName = "connector.subscription";

/// Messages of one subscription on their way from any thread to the interpreter's.
class Inbox final : public std::enable_shared_from_this<Inbox>
{
public:
    /// Takes a reference to `deliver`, which `close` gives back.
    explicit Inbox(PyObject* deliver) : deliver_(Ref::share(deliver)) {}

    void receive(const std::string& channel, const std::string& json)
    {
        {
            std::lock_guard lock(mutex_);
            if (closed_)
                return;
            if (waiting_.size() >= kMaxWaiting) {
                ++lost_;
                return;
            }
            waiting_.emplace_back(channel, json);
            if (std::exchange(posted_, true))
                return;
        }
        post();
    }

    /// With the language's lock.
    void drain()
    {
        const auto self = shared_from_this();
        {
            std::lock_guard lock(mutex_);
            posted_ = false;
        }
        for (;;) {
            std::pair<std::string, std::string> message;
            std::size_t lost = 0;
            {
                std::lock_guard lock(mutex_);
                if (closed_ || waiting_.empty())
                    return;
                message = std::move(waiting_.front());
                waiting_.pop_front();
                lost = std::exchange(lost_, 0);
            }
            if (lost > 0)
                PySys_WriteStderr("connector: %zu messages were lost before one of %.200s\n", lost,
                                  message.first.c_str());
            const Ref channel = makeText(message.first);
            const Ref json = makeText(message.second);
            const Ref target = Ref::share(deliver_.get());
            const Ref result = Ref::own(PyObject_CallFunctionObjArgs(target.get(), channel.get(), json.get(), nullptr));
        }
    }

    /// With the language's lock.
    void close()
    {
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
            waiting_.clear();
        }
        deliver_ = Ref();
    }

    void postAgainIfLeft()
    {
        {
            std::lock_guard lock(mutex_);
            if (closed_ || waiting_.empty() || std::exchange(posted_, true))
                return;
        }
        post();
    }

private:
    class Drain final : public rqe::Task
    {
    public:
        explicit Drain(std::shared_ptr<Inbox> inbox) : inbox_(std::move(inbox)) {}
        void run(rqe::Interpreter&) override
        {
            try {
                inbox_->drain();
            } catch (const ErrorSet&) {
                // An interrupt: it ends what runs, not what waits.
                PyErr_Print();
            }
        }
        void finish() noexcept override { inbox_->postAgainIfLeft(); }
        void abandon(std::exception_ptr) noexcept override {}

    private:
        std::shared_ptr<Inbox> inbox_;
    };

    void post()
    {
        if (const auto engine = rqe::Factory::getCurrentLocalRQE()) {
            try {
                engine->post(std::make_unique<Drain>(shared_from_this()));
                return;
            } catch (const std::exception&) {
                // Full: the next message tries again.
            }
        }
        std::lock_guard lock(mutex_);
        posted_ = false;
    }

    std::mutex mutex_;
    std::deque<std::pair<std::string, std::string>> waiting_;
    std::size_t lost_ = 0;
    bool posted_ = false;
    bool closed_ = false;
    Ref deliver_; ///< the language's lock guards it
};

/// What a capsule holds: it ends with the script's object.
struct Handle
{
    std::shared_ptr<Inbox> inbox;
    std::unique_ptr<rqe::ProcessBus::Subscription> subscription;

    void end()
    {
        if (inbox)
            inbox->close();
        inbox.reset();
        // Ending it may wait for a thread that wants the language's lock.
        Py_BEGIN_ALLOW_THREADS;
        subscription.reset();
        Py_END_ALLOW_THREADS;
    }
};

void destroyHandle(PyObject* capsule)
{
    std::unique_ptr<Handle> handle(static_cast<Handle*>(PyCapsule_GetPointer(capsule, kHandleName)));
    if (handle)
        handle->end();
}

template <class Work>
void withoutLock(Work work)
{
    PyThreadState* const thread = PyEval_SaveThread();
    try {
        work();
    } catch (...) {
        PyEval_RestoreThread(thread);
        throw;
    }
    PyEval_RestoreThread(thread);
}

/// For a wait without the language's lock. Says no once an interrupt has come, which is the error that is set then:
/// only the interpreter's thread gets one.
rqe::MessageBus::GoOn goOnUntilInterrupted()
{
    const auto engine = rqe::Factory::getCurrentLocalRQE();
    if (!engine || !engine->onInterpreterThread())
        return {};
    return [] {
        const auto lock = PyGILState_Ensure();
        const bool interrupted = PyErr_CheckSignals() != 0;
        PyGILState_Release(lock);
        return !interrupted;
    };
}

PyObject* publish(PyObject*, PyObject* const* values, Py_ssize_t count)
try {
    if (count != 2) {
        PyErr_SetString(PyExc_TypeError, "channel and text expected");
        return nullptr;
    }
    const std::string channel = textOf(values[0]);
    const std::string json = textOf(values[1]);
    withoutLock([&] { rqe::ProcessBus::publish(channel, json, goOnUntilInterrupted()); });
    if (PyErr_Occurred())
        throw ErrorSet{};
    Py_RETURN_NONE;
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* subscribe(PyObject*, PyObject* const* values, Py_ssize_t count)
try {
    if (count != 2) {
        PyErr_SetString(PyExc_TypeError, "channel and callback expected");
        return nullptr;
    }
    const std::string channel = textOf(values[0]);
    auto handle = std::make_unique<Handle>();
    handle->inbox = std::make_shared<Inbox>(values[1]);
    withoutLock([&] {
        handle->subscription = rqe::ProcessBus::subscribe(
            channel,
            [inbox = handle->inbox](const std::string& name, const std::string& json) { inbox->receive(name, json); });
    });
    Ref capsule = Ref::own(PyCapsule_New(handle.get(), kHandleName, destroyHandle));
    handle.release();
    return capsule.release();
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* unsubscribe(PyObject*, PyObject* capsule)
{
    auto* handle = static_cast<Handle*>(PyCapsule_GetPointer(capsule, kHandleName));
    if (!handle)
        return nullptr;
    handle->end();
    Py_RETURN_NONE;
}

PyMethodDef busMethods[] = {
    {"_bus_publish", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&publish)), METH_FASTCALL, nullptr},
    {"_bus_subscribe", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&subscribe)), METH_FASTCALL, nullptr},
    {"_bus_unsubscribe", &unsubscribe, METH_O, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

} // namespace

void addBusFunctions(PyObject* module)
{
    check(PyModule_AddFunctions(module, busMethods));
    const Ref code = loadCompiled(kBusSupport);
    PyObject* const names = PyModule_GetDict(module); // borrowed
    check(PyDict_SetItemString(names, "__builtins__", PyEval_GetBuiltins()));
    PyObject* const shared = PyInterpreterState_GetDict(PyInterpreterState_Get()); // borrowed
    PyObject* const support = PyDict_GetItemString(shared, kSupportName);          // borrowed, like the members
    check(PyDict_SetItemString(names, "_library", PyDict_GetItemString(support, "library")));
    check(PyDict_SetItemString(names, "_print_error", PyDict_GetItemString(support, "print_error")));
    const Ref result = Ref::own(PyEval_EvalCode(code.get(), names, names));
}

} // namespace vendra::python
