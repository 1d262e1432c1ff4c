#pragma once

#include <string>

#include "platform/fl/adaptive_spin.h"
#include "platform/rqe/LocalRQE.h"
#include "vendra/LineReader.h"
#include "vendra/python/PythonHost.h"

namespace vendra {

/// What the main thread does when no script runs: it serves clients and, at a terminal, the prompt.
class HostLoop
{
public:
    HostLoop(python::PythonHost& host, rqe::LocalRQE& engine);
    ~HostLoop();
    HostLoop(const HostLoop&) = delete;
    HostLoop& operator=(const HostLoop&) = delete;

    /// Runs posted tasks until `input` is readable (-1: no input), the keyboard interrupts or the process is to exit.
    Wake wait(int input);

    /// Serves the prompt to its end; returns the exit status.
    int prompt(LineReader& reader);

    /// Serves clients until a signal asks for the exit; returns the exit status.
    int serve();

    /// Runs a piece of the host's own code as what the engine calls the foreground.
    template <class Run>
    python::PythonHost::Outcome foreground(Run run)
    {
        rqe::LocalRQE::ForegroundScope scope(engine_);
        auto outcome = run();
        noteFolder();
        return outcome;
    }

private:
    Wake waitServing(int input);
    bool drainSignals();
    void runTasks();
    void noteFolder();
    void tellInterrupted();
    bool mayLeave(bool askedBefore);

    python::PythonHost& host_;
    rqe::LocalRQE& engine_;
    int signalRead_ = -1;
    int signalWrite_ = -1;
    std::string folder_;
    bool written_ = false; ///< below the prompt
    fl::AdaptiveSpin spin_;
};

} // namespace vendra
