#include "vendra/python/Bus.h"

#include <optional>

#include "platform/rqe/MessageBus.h"
#include "platform/rqe/ProcessSession.h"
#include "vendra/python/BusInbox.h"
#include "vendra/python/ServiceDesk.h"
#include "vendra/python/Support.h"

namespace vendra::python {
namespace {

constexpr const char* kHandleName = "connector.subscription";

/// What a capsule holds: a subscription, service or rule that ends with the script's object.
struct Handle
{
    std::shared_ptr<BusInbox> inbox;
    std::shared_ptr<ServiceDesk> desk;
    std::unique_ptr<rqe::ProcessBus::Subscription> subscription;

    void end()
    {
        ServiceDesk::Calls left;
        if (inbox)
            inbox->close();
        if (desk)
            left = desk->close();
        inbox.reset();
        desk.reset();
        // Ending it may wait for a thread that wants the language's lock.
        Py_BEGIN_ALLOW_THREADS;
        subscription.reset();
        left.clear();
        Py_END_ALLOW_THREADS;
    }
};

void destroyHandle(PyObject* capsule)
{
    std::unique_ptr<Handle> handle(static_cast<Handle*>(PyCapsule_GetPointer(capsule, kHandleName)));
    if (handle)
        handle->end();
}

PyObject* capsuleOf(std::unique_ptr<Handle> handle)
{
    Ref capsule = Ref::own(PyCapsule_New(handle.get(), kHandleName, destroyHandle));
    handle.release();
    return capsule.release();
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

void requireCount(Py_ssize_t count, Py_ssize_t expected)
{
    if (count == expected)
        return;
    PyErr_Format(PyExc_TypeError, "%zd arguments expected, not %zd", expected, count);
    throw ErrorSet{};
}

PyObject* publish(PyObject*, PyObject* const* values, Py_ssize_t count)
try {
    requireCount(count, 2);
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
    requireCount(count, 2);
    const std::string channel = textOf(values[0]);
    auto handle = std::make_unique<Handle>();
    handle->inbox = std::make_shared<BusInbox>(values[1]);
    withoutLock([&] {
        handle->subscription = rqe::ProcessBus::subscribe(
            channel,
            [inbox = handle->inbox](const std::string& name, const std::string& json) { inbox->receive(name, json); });
    });
    return capsuleOf(std::move(handle));
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* serve(PyObject*, PyObject* const* values, Py_ssize_t count)
try {
    requireCount(count, 2);
    const std::string channel = textOf(values[0]);
    auto handle = std::make_unique<Handle>();
    handle->desk = std::make_shared<ServiceDesk>(values[1]);
    withoutLock([&] {
        handle->subscription =
            rqe::ProcessBus::serve(channel, [desk = handle->desk](std::shared_ptr<rqe::ServiceCall> call) {
                return desk->take(std::move(call));
            });
    });
    return capsuleOf(std::move(handle));
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

/// channel, retain, presence, lazy, publishers, subscribers; the last two None for everybody, or a list of str.
PyObject* setRule(PyObject*, PyObject* const* values, Py_ssize_t count)
try {
    requireCount(count, 6);
    const auto sessions = [](PyObject* list) { return list == Py_None ? std::nullopt : std::optional(textsOf(list)); };
    const std::string channel = textOf(values[0]);
    rqe::ChannelRule rule;
    rule.retain = values[1] == Py_True;
    rule.presence = values[2] == Py_True;
    rule.lazy = values[3] == Py_True;
    rule.publishers = sessions(values[4]);
    rule.subscribers = sessions(values[5]);
    auto handle = std::make_unique<Handle>();
    withoutLock([&] { handle->subscription = rqe::ProcessBus::rule(channel, rule); });
    return capsuleOf(std::move(handle));
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* end(PyObject*, PyObject* capsule)
{
    auto* handle = static_cast<Handle*>(PyCapsule_GetPointer(capsule, kHandleName));
    if (!handle)
        return nullptr;
    handle->end();
    Py_RETURN_NONE;
}

/// Tuples of id, address, whether it has a WebSocket, messages that wait, and its subscriptions.
PyObject* sessions(PyObject*, PyObject*)
try {
    std::vector<rqe::BusSession> found;
    withoutLock([&] { found = rqe::ProcessBus::sessions(); });
    Ref list = Ref::own(PyList_New(0));
    for (const auto& session : found) {
        const Ref subscriptions = Ref::own(PyList_New(0));
        for (const auto& channel : session.subscriptions)
            check(PyList_Append(subscriptions.get(), makeText(channel).get()));
        const Ref row = Ref::own(Py_BuildValue("(NNNnO)", makeText(session.id).release(),
                                               makeText(session.address).release(), PyBool_FromLong(session.webSocket),
                                               static_cast<Py_ssize_t>(session.queued), subscriptions.get()));
        check(PyList_Append(list.get(), row.get()));
    }
    return list.release();
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyObject* endSession(PyObject*, PyObject* id)
try {
    const std::string name = textOf(id);
    bool found = false;
    withoutLock([&] { found = rqe::ProcessBus::endSession(name); });
    return PyBool_FromLong(found);
} catch (...) {
    setErrorFromCurrentException();
    return nullptr;
}

PyCFunction fast(PyObject* (*function)(PyObject*, PyObject* const*, Py_ssize_t))
{
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef busMethods[] = {
    {"_bus_publish", fast(&publish), METH_FASTCALL, nullptr},
    {"_bus_subscribe", fast(&subscribe), METH_FASTCALL, nullptr},
    {"_bus_serve", fast(&serve), METH_FASTCALL, nullptr},
    {"_bus_rule", fast(&setRule), METH_FASTCALL, nullptr},
    {"_bus_end", &end, METH_O, nullptr},
    {"_bus_sessions", &sessions, METH_NOARGS, nullptr},
    {"_bus_end_session", &endSession, METH_O, nullptr},
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
