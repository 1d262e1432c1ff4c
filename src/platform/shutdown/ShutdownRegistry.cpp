#include "platform/shutdown/ShutdownRegistry.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <mutex>
#include <ranges>
#include <utility>

#include <dlfcn.h>

namespace {

struct LibraryCloser
{
    void operator()(void* library) const noexcept { ::dlclose(library); }
};
using Library = std::unique_ptr<void, LibraryCloser>;

/// Another hold on the library that has the object's virtual table; none for the program itself.
Library libraryOf(const ShutdownObject* object)
{
    const void* const table = object ? *reinterpret_cast<const void* const*>(object) : nullptr;
    Dl_info found;
    if (!table || ::dladdr(table, &found) == 0)
        return nullptr;
    return Library(::dlopen(found.dli_fname, RTLD_LAZY | RTLD_NOLOAD));
}

struct Entry
{
    Library library; ///< outlives the object
    std::unique_ptr<ShutdownObject> object;
};

/// Shared, so that a list of them outlives the lock it was taken under.
using Entries = std::vector<std::shared_ptr<const Entry>>;

struct Registered
{
    std::mutex mutex;
    Entries entries;
    bool notifying = false; ///< of the interpreter thread
};

Registered& registered()
{
    // Never destroyed: an object left in it may need what is destroyed before.
    static auto& instance = *new Registered;
    return instance;
}

Entries listEntries()
{
    Registered& all = registered();
    const std::lock_guard lock(all.mutex);
    return all.entries;
}

class Notifying
{
public:
    Notifying() { registered().notifying = true; }
    ~Notifying() { registered().notifying = false; }
    Notifying(const Notifying&) = delete;
    Notifying& operator=(const Notifying&) = delete;
};

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
    std::unique_ptr<ShutdownObject> owned(object);
    Library library = libraryOf(object);
    auto entry = std::make_shared<const Entry>(Entry{std::move(library), std::move(owned)});
    Registered& all = registered();
    const std::lock_guard lock(all.mutex);
    all.entries.push_back(std::move(entry));
}

bool ShutdownRegistry::isOkToExit()
{
    const Entries entries = listEntries();
    return std::ranges::all_of(entries,
                               [](const auto& entry) { return !entry->object || entry->object->isOkToExit(); });
}

void ShutdownRegistry::notifyAll(const std::function<void(std::string_view)>& report)
{
    if (registered().notifying)
        return;
    const Notifying notifying;
    Entries entries = listEntries();
    std::erase_if(entries, [](const auto& entry) { return !entry->object; });
    std::ranges::reverse(entries);
    for (const auto& entry : entries)
        attempt(
            *entry->object, "shutdown", [&entry] { entry->object->shutdown(); }, report);
    for (const auto& entry : entries)
        attempt(
            *entry->object, "terminate", [&entry] { entry->object->terminate(); }, report);
}

void ShutdownRegistry::clear()
{
    Entries entries;
    Registered& all = registered();
    {
        const std::lock_guard lock(all.mutex);
        entries.swap(all.entries);
    }
    while (!entries.empty())
        entries.pop_back();
}

std::vector<std::string> ShutdownRegistry::names()
{
    std::vector<std::string> names;
    for (const auto& entry : listEntries())
        names.push_back(entry->object ? entry->object->name() : "(null)");
    return names;
}
