#include "JsonView.h"

#include <algorithm>
#include <cstdio>

namespace json_view {
namespace {

constexpr std::string_view kSpace = " \t\r\n";

/// Behind the text that begins at `at`.
std::size_t skipText(std::string_view json, std::size_t at)
{
    for (++at; at < json.size() && json[at] != '"'; ++at)
        if (json[at] == '\\')
            ++at;
    return at + 1;
}

/// Behind the value that begins at `at`.
std::size_t skipValue(std::string_view json, std::size_t at)
{
    std::size_t depth = 0;
    while (at < json.size()) {
        const char c = json[at];
        if (c == '"') {
            at = skipText(json, at);
            if (depth == 0)
                return at;
            continue;
        }
        if (c == '{' || c == '[')
            ++depth;
        if (c == '}' || c == ']') {
            if (depth <= 1)
                return at + depth; // the end of the value, or of what it stands in
            --depth;
        }
        if (c == ',' && depth == 0)
            return at;
        ++at;
    }
    return at;
}

std::size_t skip(std::string_view json, std::size_t at, std::string_view characters)
{
    const auto found = json.find_first_not_of(characters, at);
    return found == std::string_view::npos ? json.size() : found;
}

constexpr std::string_view kBetween = " \t\r\n,";
constexpr std::string_view kBeforeValue = " \t\r\n:";

std::string_view part(std::string_view json, std::size_t begin, std::size_t end)
{
    end = std::min(end, json.size());
    return begin < end ? json.substr(begin, end - begin) : std::string_view();
}

} // namespace

std::string_view member(std::string_view object, std::string_view name)
{
    std::size_t at = skip(object, 0, kSpace);
    if (at == object.size() || object[at] != '{')
        return {};
    for (at = skip(object, at + 1, kBetween); at < object.size() && object[at] == '"';
         at = skip(object, at, kBetween)) {
        const std::size_t keyEnd = skipText(object, at);
        const bool found = part(object, at + 1, keyEnd - 1) == name;
        const std::size_t value = skip(object, keyEnd, kBeforeValue);
        at = skipValue(object, value);
        if (found)
            return part(object, value, at);
    }
    return {};
}

std::string_view member(std::string_view object, std::initializer_list<std::string_view> way)
{
    for (const auto name : way)
        object = member(object, name);
    return object;
}

std::vector<std::string_view> elements(std::string_view array)
{
    std::vector<std::string_view> found;
    std::size_t at = skip(array, 0, kSpace);
    if (at == array.size() || array[at] != '[')
        return found;
    for (at = skip(array, at + 1, kBetween); at < array.size() && array[at] != ']'; at = skip(array, at, kBetween)) {
        const std::size_t end = skipValue(array, at);
        found.push_back(part(array, at, end));
        at = end;
    }
    return found;
}

std::string_view inside(std::string_view raw)
{
    return raw.size() >= 2 && raw.front() == '"' ? raw.substr(1, raw.size() - 2) : std::string_view();
}

std::size_t countLines(std::string_view raw)
{
    std::size_t lines = 0;
    for (auto at = raw.find('\\'); at != std::string_view::npos && at + 1 < raw.size(); at = raw.find('\\', at + 2))
        lines += raw[at + 1] == 'n';
    return lines;
}

std::string quoted(std::string_view text)
{
    std::string json = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (c == '\n') {
            json += "\\n";
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            json += escape;
        } else {
            json += c;
        }
    }
    return json + '"';
}

} // namespace json_view
