#include "platform/shutdown/ShutdownRegistry.h"

#include <exception>
#include <memory>
#include <mutex>
#include <ranges>

namespace {

/// Null for a null object that was registered. Shared, so that a list of them outlives the lock it was taken under.
using Entries = std::vector<std::shared_ptr<ShutdownObject>>;

struct Registered
{
    std::mutex mutex;
    Entries entries;
};

Registered& registered()
{
    // Never destroyed: at exit an object left in it may belong to a library that is gone.
    static auto& instance = *new Registered;
    return instance;
}

Entries listEntries()
{
    Registered& all = registered();
    const std::lock_guard lock(all.mutex);
    return all.entries;
}

Entries takeEntries()
{
    Registered& all = registered();
    const std::lock_guard lock(all.mutex);
    return std::exchange(all.entries, {});
}

/// Runs one notification; a failure of one object must not keep the others from theirs.
template <class Notify>
void attempt(const ShutdownObject& object, const char* what, Notify notify,
             const std::function<void(std::string_view)>& report)
{
    std::string failure;
    try {
        notify();
        return;
    } catch (const std::exception& error) {
        failure = error.what();
    } catch (...) {
        failure = "an exception of unknown type";
    }
    if (report)
        report("The " + std::string(what) + " of \"" + object.name() + "\" failed: " + failure);
}

} // namespace

void ShutdownRegistry::RegisterObject(ShutdownObject* object)
{
    std::shared_ptr<ShutdownObject> owned(object);
    Registered& all = registered();
    const std::lock_guard lock(all.mutex);
    all.entries.push_back(std::move(owned));
}

bool ShutdownRegistry::isOkToExit()
{
    const Entries entries = listEntries();
    return std::ranges::all_of(entries, [](const auto& object) { return !object || object->isOkToExit(); });
}

void ShutdownRegistry::notifyAll(const std::function<void(std::string_view)>& report)
{
    Entries entries = takeEntries();
    std::erase(entries, nullptr);
    std::ranges::reverse(entries);
    for (const auto& object : entries)
        attempt(
            *object, "shutdown", [&object] { object->shutdown(); }, report);
    for (const auto& object : entries)
        attempt(
            *object, "terminate", [&object] { object->terminate(); }, report);
    for (auto& object : entries)
        object.reset();
}

std::vector<std::string> ShutdownRegistry::names()
{
    std::vector<std::string> names;
    for (const auto& object : listEntries())
        names.push_back(object ? object->name() : "(null)");
    return names;
}
