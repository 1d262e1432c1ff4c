#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/matrix/Array.h"

/// What a watcher of the workspace asks and gets. Texts are UTF-8; positions count from 0.
namespace rqe {

struct VariableInfo
{
    std::string name;
    std::string type;              ///< as the language names it
    std::vector<std::size_t> size; ///< of arrays, tables, texts and containers; empty for scalars
    std::string preview;           ///< at most 200 bytes
    std::size_t bytes = 0;         ///< memory that it takes by itself, without what it refers to
    std::string elementType;       ///< of arrays that have one type for all elements
};

struct WorkspacePage
{
    std::vector<VariableInfo> variables;
    std::size_t total = 0; ///< how many there are in all
};

/// One step from a value into it: a position, or a key or an attribute's name.
using Step = std::variant<std::int64_t, std::string>;
using Path = std::vector<Step>;

struct Range
{
    std::size_t from = 0;
    std::size_t count = 0;
    friend bool operator==(const Range&, const Range&) = default;
};

enum class PictureFormat
{
    png,
    svg
};

/// A figure to be drawn. Other than a look this may run code of the script's.
struct PictureQuery
{
    PictureFormat format = PictureFormat::png;
    std::optional<unsigned> dots;        ///< per inch; the figure's own when there is none
    std::size_t bytes = 4 * 1024 * 1024; ///< a picture that takes more is left out
};

struct Picture
{
    PictureFormat format = PictureFormat::png;
    std::string data; ///< the file's bytes; of an SVG UTF-8
};

struct ValueQuery
{
    std::string name; ///< of a variable
    Path path;
    std::optional<Range> rows; ///< the part whose value is wanted; all when there is none
    std::optional<Range> columns;
    std::size_t offset = 0; ///< the first child to tell of
    std::size_t limit = 100;
    std::size_t valueBytes = 64 * 1024; ///< a value that takes more as a text is left out
    std::optional<PictureQuery> picture;
};

struct ChildInfo
{
    std::optional<Step> step; ///< none where no path leads there
    VariableInfo info;        ///< its name is for people
};

struct ValueView
{
    VariableInfo info;
    std::size_t childCount = 0;
    std::vector<ChildInfo> children;
    matrix::ArrayPtr value;    ///< of a table a cell row with one element per column
    std::string valueMissing;  ///< why `value` is null
    std::optional<Range> rows; ///< what `value` holds of what was asked for
    std::optional<Range> columns;
    std::vector<std::string> rowNames; ///< of tables, each at most 64 bytes
    std::vector<std::string> columnNames;
    std::vector<std::string> columnTypes;
    std::optional<Picture> picture;
    std::string pictureMissing; ///< why there is none though one was asked for
};

struct VariableChanges
{
    std::string token;                ///< to ask with the next time
    std::vector<std::string> changed; ///< new ones too, in name order
    std::vector<std::string> removed;
    bool restarted = false; ///< the token was none of this interpreter's, or too old: `changed` names all variables
};

} // namespace rqe
