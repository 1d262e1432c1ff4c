#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Export.h"
#include "platform/shutdown/ShutdownObject.h"

/// The process's list of shutdown objects. The library that an object's class belongs to stays loaded as long as the
/// object is in the list, whoever else lets go of it. Threads: `RegisterObject` any; the rest the interpreter thread.
class VENDRA_PLATFORM_API ShutdownRegistry
{
public:
    /// Takes ownership, also where it throws for want of memory. A null object is counted and otherwise ignored.
    static void RegisterObject(ShutdownObject* object);

    /// False when any object is not ready to exit.
    static bool isOkToExit();

    /// Notifies all objects (see ShutdownObject::shutdown), then calls `terminate` on each in the same order. They stay
    /// in the list: a second call notifies them again, of what was started since. Failures go to `report`, one text
    /// each that names the object; an empty `report` drops them. Objects registered meanwhile wait for the next call,
    /// and a call out of an object's notification does nothing. An exception of `report` ends the call: what is left is
    /// not notified.
    static void notifyAll(const std::function<void(std::string_view)>& report);

    /// Deletes all objects, last registered first, without a notification: for a host that goes on without them.
    static void clear();

    /// The names in registration order, "(null)" for a null object.
    static std::vector<std::string> names();
};
