#pragma once

#include <string_view>

namespace vendra::python {

/// What is said about the death of a process is written to descriptors 1 and 2 just before. When they are pipes then
/// (see Descriptors), signals that report a crash first make them what they were and pass on what is still in the
/// pipes; then things take their course. One pair of pipes per process; any thread may crash at any time.
class LastWords
{
public:
    /// From now on descriptor `stream` + 1 is a pipe, whose end `pipe` is read (without waiting), in place of `own`.
    /// -1: it is no pipe any more. The first call puts the handlers of signals in place.
    static void expect(unsigned stream, int own, int pipe) noexcept;
    /// What was taken out of the pipe of descriptor 2 just now: whom it was given to may not come to tell it. The end
    /// of it is said again. One thread at a time; "" forgets.
    static void remember(std::string_view taken) noexcept;
};

} // namespace vendra::python
