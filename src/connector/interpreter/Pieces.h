#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "connector/Export.h"
#include "platform/rqe/Interpreter.h"

namespace connector::interpreter::v1 {

/// What was printed and has not been passed on: neighbours of one stream are joined, up to kBytes. One thread at a
/// time.
class CONNECTOR_API Pieces
{
public:
    static constexpr std::size_t kBytes = 32u << 10; ///< of one piece

    struct Piece
    {
        rqe::Stream stream;
        std::string text; ///< whole characters of UTF-8
    };

    void add(rqe::Stream stream, std::string_view text);
    bool empty() const noexcept { return pieces_.empty(); }
    std::size_t bytes() const noexcept { return bytes_; }
    std::vector<Piece> take();

private:
    std::vector<Piece> pieces_;
    std::size_t bytes_ = 0;
};

/// The members of a JSON object for a piece, without brackets: "stream":…,"text":…
std::string membersOf(const Pieces::Piece& piece);

} // namespace connector::interpreter::v1
