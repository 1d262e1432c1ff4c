#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/rqe/LocalRQE.h"

namespace vendra::python {

/// The embedded language: one per process, made and used on the main thread, which is the interpreter thread.
/// Operations that run code must be called without the language's lock and take it themselves.
class PythonHost : public rqe::LanguageHost
{
public:
    struct Settings
    {
        std::vector<std::string> arguments; ///< sys.argv
        bool interactive = false;           ///< what sys.flags says
    };

    /// How a piece of the host's own code ended; what it raised has been printed.
    struct Outcome
    {
        bool leave = false; ///< the code asked for the exit of the process
        int status = 0;     ///< 0, or the exit status that goes with it
    };

    enum class LineState
    {
        incomplete,
        ready,
        wrong ///< shown already
    };

    enum class Signal
    {
        none,
        interrupt,
        leave ///< see leaveStatus
    };

    /// Throws std::runtime_error with the language's own words when it cannot start.
    explicit PythonHost(const Settings& settings);
    ~PythonHost() override;

    void withInterpreter(const std::function<void(rqe::Interpreter&)>& body) override;
    void withLook(const std::function<void(rqe::Interpreter&)>& body) override;
    void breakRunning() override;
    void discardBreak() override;

    /// Calls `told` when the keyboard, and no client, interrupted what a task ran; inside of the task.
    void onKeyboardInterrupt(std::function<void()> told);

    Outcome runFile(const std::string& path);
    /// A module of the search path, or a package's __main__.
    Outcome runModule(const std::string& name);
    /// What the user's environment says that a prompt begins with.
    Outcome runStartup();
    /// `fileName`: what tracebacks call the code.
    Outcome runSource(const std::string& code, const std::string& fileName);
    /// Imports the module and starts its framework.
    Outcome startConnector();

    /// Puts the current folder on the search path as the language's prompt and -c do.
    void prepareInteractive(bool withPrompts);
    std::string prompt(bool continued);
    /// `source`: all lines typed so far, without the last line's end.
    LineState compileLine(const std::string& source);
    /// Runs what compileLine found ready.
    Outcome runLine();

    /// Makes descriptors 1 and 2, which evaluations use for themselves, those of the process again: before the host
    /// uses its terminal, or waits. Quick, and takes no lock.
    void giveBackDescriptors();
    bool leadsDescriptors() const noexcept;

    /// Loads a part, of a few milliseconds, of what clients' first error needs. For when the host has nothing else to
    /// do; false once nothing is left to load, or while there can be no clients.
    bool prepareAhead();

    /// Whether a toolkit has windows that want to be served while the host waits. Takes no lock.
    bool hasWindows() const;
    /// Serves what came for them, without waiting.
    void serveWindows();

    /// Signals that come while nothing runs make `descriptor` (non-blocking) readable, -1: none do. While code runs,
    /// the language's own mechanism for this is left to the code; `expectSignals` takes it back before the host waits.
    void setWakeDescriptor(int descriptor);
    void expectSignals();
    /// Runs the handlers of signals that came.
    Signal takeSignals();
    /// True when takeSignals has something to tell although the descriptor says nothing. Takes no lock.
    bool signalNoted() const;
    /// The exit status that a signal or its handler asked for, from then on. Takes no lock.
    std::optional<int> leaveStatus() const;

    /// From here on a signal ends the process at once.
    void letNextSignalKill();
    /// Waits for the threads of scripts and runs exit functions, as the language does before its end: the connector is
    /// theirs to the last.
    void endScripts();
    /// From here on scripts cannot use the connector; what they are at is waited for.
    void closeConnector();
    /// Ends the language: what endScripts has left runs, streams are flushed. Returns `status`, or 120 when the flush
    /// failed.
    int finish(int status);

private:
    class Impl;
    class Running;
    std::unique_ptr<Impl> impl_;
};

} // namespace vendra::python
