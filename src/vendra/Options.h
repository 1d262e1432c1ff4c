#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vendra {

/// What the command line asks for.
struct Options
{
    enum class Program
    {
        none,
        file,
        module,
        code,
        standardInput
    };

    Program program = Program::none;
    std::string source;                 ///< the file's or module's name or the code
    std::vector<std::string> arguments; ///< sys.argv
    bool interactive = false;           ///< -i
    bool connector = false;             ///< --connector
    std::optional<int> port;            ///< --port
    bool open = false;                  ///< --open
    bool list = false;                  ///< --list
    bool json = false;                  ///< --json
    bool url = false;                   ///< --url
    std::optional<int> host;            ///< the process that --url is about
};

/// Reads the command line as the script language's own program reads it: options up to the script, -c CODE or "-"; what
/// follows belongs to the program. Empty when there is nothing left to do; `status` is then the exit status, 2 for a
/// usage error, and what is to be said has been printed.
std::optional<Options> parseOptions(int argc, const char* const* argv, int& status);

} // namespace vendra
