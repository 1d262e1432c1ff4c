#include "connector/interpreter/Pieces.h"

#include <algorithm>
#include <utility>

#include "connector/json/JsonText.h"

namespace connector::interpreter::v1 {
namespace {

/// As much of the text as fits into `room` without cutting a character; all that is left of one that is longer.
std::size_t wholeCharacters(std::string_view text, std::size_t room)
{
    if (text.size() <= room)
        return text.size();
    std::size_t end = room;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return end;
}

} // namespace

void Pieces::add(rqe::Stream stream, std::string_view text)
{
    bytes_ += text.size();
    while (!text.empty()) {
        if (pieces_.empty() || pieces_.back().stream != stream || kBytes - pieces_.back().text.size() < 4)
            pieces_.push_back({stream, {}});
        auto& last = pieces_.back().text;
        auto count = wholeCharacters(text, kBytes - last.size());
        if (count == 0) // no UTF-8
            count = std::min(text.size(), kBytes - last.size());
        last.append(text.substr(0, count));
        text.remove_prefix(count);
    }
}

std::vector<Pieces::Piece> Pieces::take()
{
    bytes_ = 0;
    return std::exchange(pieces_, {});
}

std::string membersOf(const Pieces::Piece& piece)
{
    std::string members(piece.stream == rqe::Stream::error ? R"("stream":"error","text":)"
                                                           : R"("stream":"output","text":)");
    members.reserve(members.size() + piece.text.size() + piece.text.size() / 4);
    json::appendString(members, piece.text);
    return members;
}

} // namespace connector::interpreter::v1
