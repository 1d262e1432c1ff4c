#pragma once

#include "vendra/python/Object.h"

namespace vendra::python {

/// The interrupt of the keyboard belongs to the whole process, and is how clients break what runs. While this stands,
/// code may handle it as it likes; then whoever handled it before does so again: debuggers leave their own handler
/// behind. On the interpreter thread, with the language's lock.
class InterruptHandler
{
public:
    /// ErrorSet on failure.
    InterruptHandler();
    ~InterruptHandler();
    InterruptHandler(const InterruptHandler&) = delete;
    InterruptHandler& operator=(const InterruptHandler&) = delete;

private:
    void restore();

    Ref former_;
};

/// Takes a debugger's handler of that signal away: from code of the terminal and of the bus, which may well set one.
/// Errors are dropped.
void removeDebuggersInterruptHandler(PyObject* support) noexcept;

} // namespace vendra::python
