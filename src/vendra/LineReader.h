#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/rqe/Interpreter.h"

namespace vendra {

/// Why a wait for input ended.
enum class Wake
{
    input,     ///< the descriptor has something, or is at its end
    interrupt, ///< the keyboard's interrupt
    redraw,    ///< something was written below the prompt
    leave      ///< the process is to exit
};

/// Waits until a descriptor is readable; meanwhile the host serves what clients posted.
using Waiter = std::function<Wake(int descriptor)>;

struct Line
{
    enum class Kind
    {
        text,
        interrupted,
        end,
        leave
    };
    Kind kind = Kind::text;
    std::string text; ///< UTF-8, without the line's end
};

/// Reads the lines of the prompt from standard input.
class LineReader
{
public:
    virtual ~LineReader();
    virtual Line read(const std::string& prompt) = 0;
};

/// Completion candidates for a line up to its cursor.
using Completer = std::function<rqe::Completions(const std::string& text, std::size_t cursor)>;

/// With editing, history (~/.vendra_history) and completion. For terminals.
std::unique_ptr<LineReader> makeTerminalReader(Waiter wait, Completer complete);

/// For pipes and files.
std::unique_ptr<LineReader> makePlainReader(Waiter wait);

} // namespace vendra
