#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Export.h"
#include "platform/matrix/Array.h"
#include "platform/rqe/Browsing.h"

namespace rqe {

enum class Stream
{
    output,
    error
};

/// Takes what a piece of script prints, in order, and gives what it reads. Until the piece has ended, any thread may
/// call it, one at a time but for readLine and stopReading, which may come beside writes; with the language's lock
/// released unless said otherwise. Must not call the engine.
class VENDRA_PLATFORM_API OutputSink
{
public:
    virtual ~OutputSink();
    /// `text`: UTF-8, never empty, of any length.
    virtual void write(Stream stream, std::string_view text) = 0;
    /// Asked first, with the language's lock held: takes the text if that needs no waiting. This one does not.
    virtual bool tryWrite(Stream stream, std::string_view text);
    /// The next line of standard input with its end, "" at the end of input, nothing when none came within `patience`:
    /// then the host looks for interrupts and asks again. This one is always at its end.
    virtual std::optional<std::string> readLine(std::chrono::milliseconds patience);
    /// The script was interrupted while it waited for a line, and waits no longer. This one has nothing to do then.
    virtual void stopReading();
};

struct EvalOptions
{
    bool wantValue = true;             ///< convert the value of a last expression; false saves the conversion
    bool echo = false;                 ///< print the value of each expression statement as the prompt does
    std::string fileName = "<remote>"; ///< what tracebacks call the code
};

struct EvalResult
{
    bool hasValue = false;       ///< wanted, and the code ended in an expression whose value is not "nothing"
    matrix::ArrayPtr value;      ///< set when hasValue and convertible
    std::string valueText;       ///< the value as the language prints it, UTF-8, cut at 64 KiB; set when hasValue
    std::string conversionError; ///< why `value` is empty although hasValue
};

struct Completions
{
    std::size_t replaceFrom = 0; ///< byte offset in the text from which a candidate replaces up to the cursor
    std::vector<std::string> candidates;
};

/// Of a call. Names are the function's own, each at most once.
struct Arguments
{
    Arguments(std::vector<matrix::ArrayPtr> inOrder = {}) : positional(std::move(inOrder)) {}

    std::vector<matrix::ArrayPtr> positional;
    std::vector<std::pair<std::string, matrix::ArrayPtr>> named;
};

/// What a task sees of the script language. One per process; used only inside Task::run, on the interpreter thread.
/// Errors of the script's own code are ScriptError; std::invalid_argument names an argument that makes no sense.
/// A look (RQE::look) calls `listVariables`, `inspect`, `complete`, `searchPath` and `currentFolder` only, since it may
/// run on the looking thread.
/// Variables are those of the top-level workspace, the same that the terminal's prompt sees.
class VENDRA_PLATFORM_API Interpreter
{
public:
    virtual ~Interpreter();

    /// Runs `code` (UTF-8, any number of statements) in the workspace. What it prints goes to `output`.
    virtual EvalResult evaluate(std::string_view code, const EvalOptions& options, OutputSink& output) = 0;

    /// Calls the function that the dotted `name` means in the workspace, else among the language's own. `results`: how
    /// many results are wanted; 0 discards, 1 takes the value, n takes the first n of a sequence of at least n.
    virtual std::vector<matrix::ArrayPtr> call(std::string_view name, Arguments arguments, std::size_t results,
                                               OutputSink& output) = 0;

    /// Null when there is no such variable. ScriptError when it has no array form.
    virtual matrix::ArrayPtr getVariable(std::string_view name) = 0;
    virtual void setVariable(std::string_view name, const vxArray& value) = 0;
    virtual bool clearVariable(std::string_view name) = 0;
    /// In name order, without the names the language itself puts there, modules and names with a leading underscore.
    virtual std::vector<VariableInfo> listVariables() = 0;

    /// A part of the same list: of the names that fit `pattern` (with * ? [abc]; all when empty) those from `offset`
    /// on, at most `limit`. This, `inspect` and `changesSince` run no code of classes that a script defines, and answer
    /// in a time that the sizes of values do not set.
    virtual WorkspacePage listVariables(std::string_view pattern, std::size_t offset, std::size_t limit) = 0;
    /// Throws std::out_of_range when there is no such variable or nothing at the path, std::invalid_argument when rows
    /// or columns are asked of what has none.
    virtual ValueView inspect(const ValueQuery& query) = 0;
    /// Sets what is at a path, which is not empty, inside a variable. Throws as `inspect`; ScriptError when the
    /// assignment fails.
    virtual void setInside(std::string_view name, const Path& path, const vxArray& value) = 0;
    /// The variables that changed since a token that this operation gave; none for an empty token. A hint: a large
    /// value that was changed in place goes unnoticed.
    virtual VariableChanges changesSince(std::string_view token) = 0;

    /// What may stand at the cursor: names, attributes, names of a call's arguments, files in texts. Runs no script
    /// code. `cursor`: byte offset into `text`.
    virtual Completions complete(std::string_view text, std::size_t cursor) = 0;

    virtual std::vector<std::string> searchPath() = 0;
    virtual void setSearchPath(const std::vector<std::string>& folders) = 0;
    virtual std::string currentFolder() = 0;
    /// Throws ScriptError when the folder cannot be entered.
    virtual void setCurrentFolder(std::string_view folder) = 0;

    /// Writes the named variables (all that listVariables names when empty) to a file, whole or not at all. Answers the
    /// names of variables that could not be saved.
    virtual std::vector<std::string> saveWorkspace(std::string_view file, const std::vector<std::string>& names) = 0;
    /// Sets the variables saved in a file; answers their names.
    virtual std::vector<std::string> loadWorkspace(std::string_view file) = 0;
};

} // namespace rqe
