#include "vendra/HostLoop.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <iostream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "platform/shutdown/ShutdownRegistry.h"

namespace vendra {
namespace {

using python::PythonHost;

constexpr unsigned kTasksAtOnce = 16;
/// So long nobody must want anything before the host does something for later; then again between its parts.
constexpr int kQuietMilliseconds = 200;
constexpr int kQuietBetweenMilliseconds = 5;
/// So long descriptors 1 and 2 stay an evaluation's, for a client that asks again: changing them costs a tenth of that.
constexpr int kLedMilliseconds = 2;
/// How often windows are looked after: as often as a screen shows something new.
constexpr int kWindowMilliseconds = 16;

/// "" for a folder that is gone, or whose path is beyond what the system takes.
std::string currentFolder()
{
    std::array<char, PATH_MAX> path;
    return ::getcwd(path.data(), path.size()) ? path.data() : std::string();
}

} // namespace

HostLoop::HostLoop(PythonHost& host, rqe::LocalRQE& engine) : host_(host), engine_(engine), folder_(currentFolder())
{
    int ends[2];
    if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "The host cannot make its signal pipe");
    signalRead_ = ends[0];
    signalWrite_ = ends[1];
    host_.setWakeDescriptor(signalWrite_);
}

HostLoop::~HostLoop()
{
    host_.setWakeDescriptor(-1);
    ::close(signalRead_);
    ::close(signalWrite_);
}

bool HostLoop::drainSignals()
{
    std::array<char, 256> bytes;
    bool any = false;
    while (::read(signalRead_, bytes.data(), bytes.size()) > 0)
        any = true;
    return any;
}

Wake HostLoop::wait(int input)
{
    const Wake wake = waitServing(input);
    host_.giveBackDescriptors();
    return wake;
}

Wake HostLoop::waitServing(int input)
{
    bool signalled = true; // maybe, before this
    int patience = kQuietMilliseconds;
    for (;;) {
        host_.expectSignals();
        if ((signalled && drainSignals()) || host_.signalNoted()) {
            PythonHost::Signal signal = host_.takeSignals();
            if (signal == PythonHost::Signal::interrupt)
                return Wake::interrupt;
        }
        if (host_.leaveStatus())
            return Wake::leave;

        std::array<pollfd, 3> waited = {{{signalRead_, POLLIN, 0}, {engine_.wakeFd(), POLLIN, 0}, {input, POLLIN, 0}}};
        const bool looks = spin_.isActive();
        const bool windows = host_.hasWindows();
        const bool leads = host_.leadsDescriptors();
        const int most = leads ? kLedMilliseconds : windows ? kWindowMilliseconds : patience;
        const int ready = ::poll(waited.data(), waited.size(), looks ? 0 : most);
        if (ready == 0 && !looks && leads) {
            host_.giveBackDescriptors();
            continue;
        }
        if (ready == 0 && !looks && windows)
            host_.serveWindows();
        else if (ready == 0 && !looks)
            patience = host_.prepareAhead() ? kQuietBetweenMilliseconds : -1;
        if (ready < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "The host cannot wait");
        if (ready <= 0) {
            spin_.giveWay(); // whoever makes the next task may need this processor for it
            continue;
        }
        signalled = waited[0].revents != 0;
        if (signalled)
            continue;
        if (waited[1].revents != 0) {
            runTasks();
            spin_.start(fl::AdaptiveSpin::kForNextTask);
        }
        if (std::exchange(written_, false))
            return Wake::redraw;
        if (waited[2].revents != 0 && !host_.leaveStatus())
            return Wake::input;
    }
}

/// Those that wait, but not so many that the terminal is kept waiting.
void HostLoop::runTasks()
{
    for (unsigned i = 0; i < kTasksAtOnce && !host_.leaveStatus() && !host_.signalNoted(); ++i)
        if (!engine_.runOne())
            break;
    noteFolder();
}

void HostLoop::noteFolder()
{
    std::string folder = currentFolder();
    if (folder.empty() || folder == folder_)
        return;
    folder_ = folder;
    engine_.notifyFolderChanged(folder_);
}

/// Whose code the interrupt from the keyboard hit.
void HostLoop::tellInterrupted()
{
    const std::string about = engine_.aboutRunning();
    if (about.empty())
        return;
    // Where a client's code runs, stderr is that code's (see python/Descriptors.h).
    std::clog << "\nInterrupted: " << about << std::endl;
    written_ = true;
}

bool HostLoop::mayLeave(bool askedBefore)
{
    if (askedBefore || ShutdownRegistry::isOkToExit())
        return true;
    std::fputs("Something is not ready for the exit; Ctrl-D once more leaves all the same.\n", stderr);
    return false;
}

int HostLoop::prompt(LineReader& reader)
{
    host_.onKeyboardInterrupt([this] { tellInterrupted(); });
    std::string source;
    bool continued = false;
    bool endSeen = false;
    for (;;) {
        engine_.notifyPrompt(true);
        Line line = reader.read(host_.prompt(continued));
        engine_.notifyPrompt(false);
        switch (line.kind) {
        case Line::Kind::leave:
            return host_.leaveStatus().value_or(0);
        case Line::Kind::end:
            if (mayLeave(endSeen))
                return 0;
            endSeen = true;
            continue;
        case Line::Kind::interrupted:
            std::fputs("KeyboardInterrupt\n", stderr);
            source.clear();
            continued = false;
            continue;
        case Line::Kind::text:
            break;
        }
        endSeen = false;
        source += continued ? "\n" + line.text : line.text;
        PythonHost::LineState state = host_.compileLine(source);
        continued = state == PythonHost::LineState::incomplete;
        if (continued)
            continue;
        source.clear();
        if (state == PythonHost::LineState::wrong)
            continue;
        PythonHost::Outcome outcome = foreground([&] { return host_.runLine(); });
        if (outcome.leave)
            return outcome.status;
    }
}

int HostLoop::serve()
{
    switch (wait(-1)) {
    case Wake::interrupt:
        return 130;
    default:
        return host_.leaveStatus().value_or(0);
    }
}

} // namespace vendra
