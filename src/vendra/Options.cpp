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
    "  -c CODE [args...]     the text CODE\n"
    "  - [args...]           standard input\n"
    "  (nothing)             a prompt when standard input is a terminal, else standard input;\n"
    "                        with --connector standard input is read only by a prompt\n";

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
            continue;
        }
        // Short options may stand together, and -c takes the rest of its word or the next one.
        std::size_t c = word.find('c');
        if (c == std::string::npos) {
            flags.push_back(word);
            continue;
        }
        if (c > 1)
            flags.push_back(word.substr(0, c));
        options.program = Options::Program::code;
        bool inWord = c + 1 < word.size();
        if (!inWord && i + 1 == words.size())
            throw CLI::ArgumentMismatch("-c needs the code as its argument");
        options.source = inWord ? word.substr(c + 1) : words[i + 1];
        rest(inWord ? i + 1 : i + 2, "-c");
        return options;
    }
    options.arguments.push_back("");
    return options;
}

} // namespace

std::optional<Options> parseOptions(int argc, const char* const* argv, int& status)
{
    CLI::App app("Runs scripts and lets clients reach the interpreter that runs them.",
                 "vendra [script.py | -c CODE | -] [args...]");
    Options options;
    bool interactive = false;
    bool connector = false;
    app.add_flag("-i", interactive, "Go on with a prompt after the program");
    app.add_flag("--connector", connector, "Start the connector first, say where it is, and serve after the program");
    app.set_version_flag("-V,--version", "vendra " VENDRA_VERSION " (Python " VENDRA_PYTHON_VERSION ")");
    app.footer(kProgramHelp);

    try {
        std::vector<std::string> flags;
        options = splitProgram({argv + 1, argv + argc}, flags);
        app.parse(std::vector<std::string>(flags.rbegin(), flags.rend())); // it takes them last first
    } catch (const CLI::ParseError& error) {
        bool asked = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
        app.exit(error, std::cout, std::cerr);
        status = asked ? 0 : 2;
        return std::nullopt;
    }
    options.interactive = interactive;
    options.connector = connector;
    return options;
}

} // namespace vendra
