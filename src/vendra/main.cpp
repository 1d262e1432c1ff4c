// The reference host: a script interpreter that the module can be loaded into.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

#include <boost/smart_ptr/make_shared.hpp>
#include <unistd.h>

#include "platform/rqe/LocalRQE.h"
#include "platform/rqe/ProcessSession.h"
#include "platform/shutdown/ShutdownRegistry.h"
#include "vendra/Announcement.h"
#include "vendra/Browser.h"
#include "vendra/EntryUrl.h"
#include "vendra/HostLoop.h"
#include "vendra/Hosts.h"
#include "vendra/Options.h"
#include "vendra/python/PythonHost.h"

namespace {

using vendra::HostLoop;
using vendra::Options;
using vendra::python::PythonHost;

void announce(bool open)
{
    auto announcement = vendra::readAnnouncement(vendra::runtimeFolder(), ::getpid());
    if (!announcement) {
        std::fputs("vendra: the connector has announced no address.\n", stderr);
        return;
    }
    // The connector's own threads answer, so that this thread may wait.
    std::string url = announcement->url;
    try {
        url = vendra::fetchEntryUrl(*announcement);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vendra: no one-time address: %s.\n", error.what());
    }
    std::printf("Connector: %s\nToken file: %s\n", url.c_str(), announcement->file.c_str());
    std::fflush(stdout);
    if (!open)
        return;
    try {
        vendra::openInBrowser(url, announcement->file.parent_path());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vendra: %s.\n", error.what());
    }
}

/// --list and --url.
int tellHosts(const Options& options)
{
    try {
        auto hosts = vendra::runningHosts(vendra::runtimeFolder());
        if (options.list) {
            std::fputs((options.json ? vendra::hostList(hosts) : vendra::hostTable(hosts)).c_str(), stdout);
            return 0;
        }
        const std::string url = vendra::fetchEntryUrl(vendra::chooseHost(hosts, options.host));
        if (options.open)
            vendra::openInBrowser(url, vendra::runtimeFolder());
        else
            std::puts(url.c_str());
        return 0;
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "vendra: %s.\n", error.what());
        return 1;
    }
}

PythonHost::Outcome runProgram(PythonHost& host, HostLoop& loop, const Options& options)
{
    switch (options.program) {
    case Options::Program::file:
        return loop.foreground([&] { return host.runFile(options.source); });
    case Options::Program::module:
        return loop.foreground([&] { return host.runModule(options.source); });
    case Options::Program::code:
        return loop.foreground([&] { return host.runSource(options.source, "<string>"); });
    default:
        return loop.foreground([&] {
            std::string code(std::istreambuf_iterator<char>(std::cin), {});
            return host.runSource(code, "<stdin>");
        });
    }
}

int runPrompt(PythonHost& host, HostLoop& loop, bool banner)
{
    if (banner)
        std::fputs("vendra " VENDRA_VERSION " (Python " VENDRA_PYTHON_VERSION "); exit() or Ctrl-D leaves\n", stderr);
    auto wait = [&](int descriptor) { return loop.wait(descriptor); };
    auto complete = [&](const std::string& text, std::size_t cursor) {
        rqe::Completions found;
        host.withInterpreter([&](rqe::Interpreter& interpreter) { found = interpreter.complete(text, cursor); });
        return found;
    };
    bool terminal = ::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO);
    auto reader = terminal ? vendra::makeTerminalReader(wait, complete) : vendra::makePlainReader(wait);
    return loop.prompt(*reader);
}

/// Everything between start and shutdown; returns the exit status.
int run(PythonHost& host, rqe::LocalRQE& engine, const Options& options)
{
    HostLoop loop(host, engine);
    bool terminal = ::isatty(STDIN_FILENO);
    bool none = options.program == Options::Program::none;
    bool typed = options.program == Options::Program::standardInput && terminal;
    bool program = !typed && (!none || !(terminal || options.connector || options.interactive));
    bool prompt = options.interactive || typed || (none && terminal);

    if (options.program != Options::Program::file && options.program != Options::Program::module)
        host.prepareInteractive(prompt);
    if (options.connector) {
        PythonHost::Outcome outcome = loop.foreground([&] { return host.startConnector(); });
        if (outcome.leave || outcome.status != 0)
            return outcome.status;
        announce(options.open);
    }
    if (program) {
        PythonHost::Outcome outcome = runProgram(host, loop, options);
        bool ended = outcome.leave || outcome.status != 0;
        if (host.leaveStatus() || (ended && !prompt) || (!prompt && !options.connector))
            return outcome.status;
    }
    if (prompt) {
        if (none || typed) {
            PythonHost::Outcome outcome = loop.foreground([&] { return host.runStartup(); });
            if (outcome.leave)
                return outcome.status;
        }
        return runPrompt(host, loop, none || typed);
    }
    return loop.serve();
}

void shutDown(PythonHost& host, rqe::LocalRQE& engine)
{
    engine.close("The host is going down.");
    // A program that ends has its threads to the end; one that a signal ends gives ports and files back before.
    if (!host.leaveStatus())
        host.endScripts();
    if (host.leaveStatus())
        host.letNextSignalKill();
    host.closeConnector();
    ShutdownRegistry::notifyAll([](std::string_view failure) {
        std::fprintf(stderr, "vendra: %.*s\n", static_cast<int>(failure.size()), failure.data());
    });
    rqe::ProcessSession::setSession({});
}

} // namespace

int main(int argc, char** argv)
try {
    int status = 0;
    auto options = vendra::parseOptions(argc, argv, status);
    if (!options)
        return status;
    if (options->list || options->url)
        return tellHosts(*options);

    if (options->port)
        ::setenv("VENDRA_HTTP_PORT", std::to_string(*options->port).c_str(), 1);

    PythonHost host({options->arguments, options->interactive});
    auto engine = boost::make_shared<rqe::LocalRQE>(host);
    rqe::ProcessSession::setSession(rqe::makeSession(engine));
    pid_t self = ::getpid();
    status = run(host, *engine, *options);
    // A forked child that comes here has its parent's connector on its hands, not one of its own, and none of the
    // threads that destructors would wait for.
    const bool isChild = ::getpid() != self;
    if (!isChild)
        shutDown(host, *engine);
    status = host.finish(host.leaveStatus().value_or(status));
    if (isChild) {
        std::fflush(nullptr);
        ::_exit(status);
    }
    return status;
} catch (const std::exception& error) {
    std::fprintf(stderr, "vendra: %s\n", error.what());
    return 1;
}
