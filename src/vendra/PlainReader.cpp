#include <cerrno>
#include <cstdio>

#include <unistd.h>

#include "vendra/LineReader.h"

namespace vendra {

LineReader::~LineReader() = default;

namespace {

class PlainReader : public LineReader
{
public:
    explicit PlainReader(Waiter wait) : wait_(std::move(wait)) {}

    Line read(const std::string& prompt) override
    {
        std::fputs(prompt.c_str(), stdout);
        std::fflush(stdout);
        Line line;
        for (;;) {
            switch (wait_(STDIN_FILENO)) {
            case Wake::interrupt:
                return {Line::Kind::interrupted, {}};
            case Wake::redraw:
                std::fputs(prompt.c_str(), stdout);
                std::fflush(stdout);
                continue;
            case Wake::leave:
                return {Line::Kind::leave, {}};
            case Wake::input:
                break;
            }
            // Byte by byte: what follows the line may be meant for the script that the line runs.
            char byte = 0;
            ssize_t got = ::read(STDIN_FILENO, &byte, 1);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                return line.text.empty() ? Line{Line::Kind::end, {}} : line;
            if (byte == '\n')
                return line;
            line.text += byte;
        }
    }

private:
    Waiter wait_;
};

} // namespace

std::unique_ptr<LineReader> makePlainReader(Waiter wait) { return std::make_unique<PlainReader>(std::move(wait)); }

} // namespace vendra
