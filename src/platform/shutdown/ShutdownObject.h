#pragma once

#include <cstddef>
#include <string>

#include "platform/Export.h"

/// Something that wants to know when the host goes down. Registered with `ShutdownRegistry`, which then owns it.
/// All operations are called on the interpreter thread.
class VENDRA_PLATFORM_API ShutdownObject
{
public:
    explicit ShutdownObject(const char* name);
    virtual ~ShutdownObject();
    ShutdownObject(const ShutdownObject&) = delete;
    ShutdownObject& operator=(const ShutdownObject&) = delete;

    /// The host's exit state: true while it goes down. The default returns `exiting`.
    virtual bool exitState(bool exiting) const;
    /// May the host leave now? Asked only before an exit that a person may still refuse. The default says yes.
    virtual bool isOkToExit() const;
    /// Asks for windows to be closed; the default has none.
    virtual void closeAllWindows() const;
    /// The host goes down: stop what runs. Called in reverse order of registration, before the interpreter ends; again
    /// when the host goes down in two steps. An exception is reported and the next object is notified.
    virtual void shutdown();
    /// The last word, after every object's `shutdown`.
    virtual void terminate() const;

    const std::string& name() const noexcept { return name_; }

    /// Objects are made by one library and deleted by another: both use the platform's own heap. Returns null when
    /// memory is out.
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* memory) noexcept;

private:
    std::string name_;
};
