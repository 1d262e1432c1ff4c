#include "vendra/Options.h"

#include <iostream>
#include <iterator>
#include <string_view>

#include <CLI/CLI.hpp>

namespace vendra {
namespace {

constexpr const char* kProgramHelp =
    "What runs, and what is left to it of the command line:\n"
    "  script.py [args...]   a file, a folder or an archive with a __main__.py\n"
    "  -m MODULE [args...]   a module of the search path, as a program\n"
    "  -c CODE [args...]     the text CODE\n"
    "  - [args...]           standard input\n"
    "  (nothing)             a prompt when standard input is a terminal, else standard input;\n"
    "                        with --connector standard input is read only by a prompt\n";

bool isNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// Splits the command line: options before the program go to `flags`, the program and its arguments to the result.
/// Throws CLI::ParseError when -c has no argument.
Options splitProgram(const std::vector<std::string>& words, std::vector<std::string>& flags)
{
    Options options;
    auto rest = [&](std::size_t from, std::string first) {
        options.arguments.push_back(std::move(first));
        options.arguments.insert(options.arguments.end(), words.begin() + static_cast<std::ptrdiff_t>(from),
                                 words.end());
    };
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word == "-") {
            options.program = Options::Program::standardInput;
            rest(i + 1, "-");
            return options;
        }
        if (word.empty() || word.front() != '-') {
            options.program = Options::Program::file;
            options.source = word;
            rest(i + 1, word);
            return options;
        }
        if (word.starts_with("--")) {
            flags.push_back(word);
            const bool takesNumber = (word == "--url" && i + 1 < words.size() && isNumber(words[i + 1])) ||
                                     (word == "--port" && i + 1 < words.size());
            if (takesNumber)
                flags.back() += "=" + words[++i];
            continue;
        }
        // Short options may stand together, and -c and -m take the rest of their word or the next one.
        const std::size_t c = word.find_first_of("cm");
        if (c == std::string::npos) {
            flags.push_back(word);
            continue;
        }
        if (c > 1)
            flags.push_back(word.substr(0, c));
        const bool isCode = word[c] == 'c';
        options.program = isCode ? Options::Program::code : Options::Program::module;
        bool inWord = c + 1 < word.size();
        if (!inWord && i + 1 == words.size())
            throw CLI::ArgumentMismatch(isCode ? "-c needs the code as its argument"
                                               : "-m needs the name of a module as its argument");
        options.source = inWord ? word.substr(c + 1) : words[i + 1];
        rest(inWord ? i + 1 : i + 2, isCode ? "-c" : "-m");
        return options;
    }
    options.arguments.push_back("");
    return options;
}

} // namespace

std::optional<Options> parseOptions(int argc, const char* const* argv, int& status)
{
    CLI::App app("Runs scripts and lets clients reach the interpreter that runs them.",
                 "vendra [script.py | -m MODULE | -c CODE | -] [args...]");
    Options options;
    bool interactive = false;
    bool connector = false;
    bool list = false;
    std::string host;
    app.add_flag("-i", interactive, "Go on with a prompt after the program");
    app.add_flag("--connector", connector, "Start the connector first, say where it is, and serve after the program");
    app.add_option("--port", options.port, "Start the connector on this port; 0 is a free one")
        ->check(CLI::Range(0, 65'535));
    app.add_flag("--open", options.open, "Start the connector and open it in the browser; with --url a host that runs");
    app.add_flag("--list", list, "List this user's hosts whose connector runs, and leave");
    app.add_flag("--json", options.json, "With --list: as a JSON array of pid, url and started (seconds since 1970)");
    CLI::Option* url = app.add_option("--url", host, "Print a fresh one-time address of a host, the newest without PID")
                           ->expected(0, 1)
                           ->type_name("[PID]")
                           ->check([](const std::string& text) {
                               return text.empty() || (isNumber(text) && text.size() < 10)
                                          ? std::string()
                                          : "\"" + text + "\" is no process number";
                           });
    app.set_version_flag("-V,--version", "vendra " VENDRA_VERSION " (Python " VENDRA_PYTHON_VERSION ")");
    app.footer(kProgramHelp);

    try {
        std::vector<std::string> flags;
        options = splitProgram({argv + 1, argv + argc}, flags);
        app.parse(std::vector<std::string>(flags.rbegin(), flags.rend())); // it takes them last first
        const bool asks = list || url->count() > 0;
        const bool goesAlong = list ? options.json : options.open;
        if (asks && (options.program != Options::Program::none || flags.size() > (goesAlong ? 2u : 1u)))
            throw CLI::ArgumentMismatch("--list (with --json) and --url (with --open) stand alone: they are about "
                                        "hosts that run already");
        if (options.json && !list)
            throw CLI::ArgumentMismatch("--json goes with --list");
    } catch (const CLI::ParseError& error) {
        bool asked = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
        app.exit(error, std::cout, std::cerr);
        status = asked ? 0 : 2;
        return std::nullopt;
    }
    options.interactive = interactive;
    options.connector = connector || options.port || (options.open && url->count() == 0);
    options.list = list;
    options.url = url->count() > 0;
    if (!host.empty())
        options.host = std::stoi(host);
    return options;
}

} // namespace vendra
