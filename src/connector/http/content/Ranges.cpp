#include "connector/http/content/Ranges.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "connector/http/HttpText.h"

namespace connector::http::content {

namespace {

/// As written: "first-last", "first-" or "-suffix".
struct Asked
{
    bool suffix = false;
    std::uint64_t first = 0; ///< or the suffix's length
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
};

/// Digits only; a number that is too large is the largest one.
bool readNumber(std::string_view text, std::uint64_t& value)
{
    if (text.empty() || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc())
        value = std::numeric_limits<std::uint64_t>::max();
    return true;
}

bool readRange(std::string_view text, Asked& asked)
{
    const auto dash = text.find('-');
    if (dash == std::string_view::npos)
        return false;
    const std::string_view after = text.substr(dash + 1);
    asked.suffix = dash == 0;
    if (asked.suffix)
        return readNumber(after, asked.first);
    if (!readNumber(text.substr(0, dash), asked.first))
        return false;
    return after.empty() || (readNumber(after, asked.last) && asked.first <= asked.last);
}

/// False for a bad form or too many.
bool readRanges(std::string_view field, std::vector<Asked>& all)
{
    const auto equals = field.find('=');
    if (equals == std::string_view::npos || !equalsIgnoringCase(field.substr(0, equals), "bytes"))
        return false;
    field.remove_prefix(equals + 1);
    while (!field.empty()) {
        const auto comma = std::min(field.find(','), field.size());
        const std::string_view element = trimmed(field.substr(0, comma));
        field.remove_prefix(std::min(comma + 1, field.size()));
        if (element.empty())
            continue;
        Asked asked;
        if (all.size() == kMaxRanges || !readRange(element, asked))
            return false;
        all.push_back(asked);
    }
    return !all.empty();
}

struct Piece
{
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    std::size_t position = 0; ///< among those asked for
};

/// Pieces by their place in the file, then close ones made one, then again in the order asked for.
void coalesce(std::vector<Piece>& pieces)
{
    std::sort(pieces.begin(), pieces.end(), [](const Piece& a, const Piece& b) { return a.first < b.first; });
    auto current = pieces.begin();
    for (auto next = current + 1; next != pieces.end(); ++next) {
        if (next->first <= current->end || next->first - current->end <= kPartOverhead) {
            current->end = std::max(current->end, next->end);
            current->position = std::min(current->position, next->position);
        } else {
            *++current = *next;
        }
    }
    pieces.erase(current + 1, pieces.end());
    std::sort(pieces.begin(), pieces.end(), [](const Piece& a, const Piece& b) { return a.position < b.position; });
}

} // namespace

RangeSelection selectRanges(std::string_view field, std::uint64_t size)
{
    std::vector<Asked> all;
    if (!readRanges(field, all))
        return {};

    std::vector<Piece> pieces;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Asked& asked = all[i];
        if (asked.suffix && asked.first > 0) {
            if (size == 0)
                return {}; // satisfiable, but no Content-Range can say so
            pieces.push_back({size - std::min(asked.first, size), size, i});
        } else if (!asked.suffix && asked.first < size) {
            pieces.push_back({asked.first, std::min(asked.last, size - 1) + 1, i});
        }
    }
    RangeSelection selection;
    if (pieces.empty()) {
        selection.kind = RangeSelection::Kind::unsatisfiable;
        return selection;
    }
    coalesce(pieces);
    selection.kind = RangeSelection::Kind::some;
    for (const Piece& piece : pieces)
        selection.ranges.push_back({piece.first, piece.end - piece.first});
    return selection;
}

} // namespace connector::http::content
