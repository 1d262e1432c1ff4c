#include "connector/json/UnsoundJson.h"

#include <cstddef>

namespace connector::json {

namespace {

std::string_view between(const char* begin, const char* end) noexcept
{
    return {begin, static_cast<std::size_t>(end - begin)};
}

bool isSpace(char c) noexcept { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

const char* skipSpace(const char* next, const char* end) noexcept
{
    while (next != end && isSpace(*next))
        ++next;
    return next;
}

/// Behind the quote that closes what begins with one at `next`; null without it.
const char* skipQuoted(const char* next, const char* end) noexcept
{
    for (++next; next != end && *next != '"'; ++next) {
        if (*next == '\\' && ++next == end)
            return nullptr;
    }
    return next == end ? nullptr : next + 1;
}

} // namespace

const char* endOfUnsound(const char* begin, const char* end) noexcept
{
    std::size_t depth = 0;
    for (const char* next = begin; next != end;) {
        if (*next == '"') {
            next = skipQuoted(next, end);
            if (!next)
                return nullptr;
            continue;
        }
        if (*next == '{' || *next == '[')
            ++depth;
        else if (depth == 0 && (*next == ',' || *next == '}' || *next == ']'))
            return next;
        else if (*next == '}' || *next == ']')
            --depth;
        ++next;
    }
    return depth == 0 ? end : nullptr;
}

std::vector<std::pair<std::string_view, std::string_view>> membersOfUnsound(std::string_view object)
{
    std::vector<std::pair<std::string_view, std::string_view>> members;
    const char* const end = object.data() + object.size();
    const char* next = object.data();
    if (next == end || *next != '{')
        return members;
    do {
        next = skipSpace(next + 1, end);
        if (next == end || *next != '"')
            return members;
        const char* const name = next;
        next = skipQuoted(next, end);
        if (!next)
            return members;
        const auto written = between(name, next);
        next = skipSpace(next, end);
        if (next == end || *next != ':')
            return members;
        const char* const value = skipSpace(next + 1, end);
        next = endOfUnsound(value, end);
        if (!next)
            return members;
        members.emplace_back(written, between(value, next));
    } while (next != end && *next == ',');
    return members;
}

} // namespace connector::json
