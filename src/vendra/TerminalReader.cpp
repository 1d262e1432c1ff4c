#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <histedit.h>
#include <unistd.h>

#include "vendra/HomeFolder.h"
#include "vendra/LineReader.h"

namespace vendra {
namespace {

constexpr int kHistoryLines = 2000;
constexpr std::size_t kMostShown = 200;

struct EditorDeleter
{
    void operator()(EditLine* editor) const noexcept { ::el_end(editor); }
};
struct HistoryDeleter
{
    void operator()(History* history) const noexcept { ::history_end(history); }
};

std::string commonPrefix(const std::vector<std::string>& words)
{
    std::string prefix = words.front();
    for (const std::string& word : words) {
        auto end = std::mismatch(prefix.begin(), prefix.end(), word.begin(), word.end()).first;
        prefix.erase(end, prefix.end());
    }
    // Not into the middle of a character.
    while (!prefix.empty() && prefix.size() < words.front().size() &&
           (static_cast<unsigned char>(words.front()[prefix.size()]) & 0xC0) == 0x80)
        prefix.pop_back();
    return prefix;
}

class TerminalReader : public LineReader
{
public:
    TerminalReader(Waiter wait, Completer complete);
    ~TerminalReader() override;

    Line read(const std::string& prompt) override;

private:
    static TerminalReader& of(EditLine* editor)
    {
        void* self = nullptr;
        ::el_get(editor, EL_CLIENTDATA, &self);
        return *static_cast<TerminalReader*>(self);
    }
    static char* promptOf(EditLine* editor) { return of(editor).prompt_.data(); }
    // No exception may cross the editor's frames: `read` passes it on.
    static int nextCharacter(EditLine* editor, wchar_t* character)
    try {
        return of(editor).readCharacter(*character);
    } catch (...) {
        of(editor).failure_ = std::current_exception();
        return -1;
    }
    static unsigned char tabTyped(EditLine* editor, int)
    try {
        return of(editor).completeWord();
    } catch (const std::exception&) {
        return CC_REFRESH_BEEP; // a completion that fails is none
    }

    int readCharacter(wchar_t& character);
    unsigned char completeWord();
    void showCandidates(const std::vector<std::string>& candidates);
    void remember(const std::string& line);

    Waiter wait_;
    Completer complete_;
    std::unique_ptr<History, HistoryDeleter> history_;
    std::unique_ptr<EditLine, EditorDeleter> editor_;
    std::filesystem::path historyFile_;
    std::string prompt_;
    Line::Kind end_ = Line::Kind::end; ///< why there is no line
    std::exception_ptr failure_;
};

TerminalReader::TerminalReader(Waiter wait, Completer complete)
    : wait_(std::move(wait)), complete_(std::move(complete)), history_(::history_init()),
      editor_(::el_init("vendra", stdin, stdout, stderr))
{
    if (!editor_ || !history_)
        throw std::runtime_error("The line editor cannot start.");
    EditLine* editor = editor_.get();
    ::el_set(editor, EL_CLIENTDATA, this);
    ::el_set(editor, EL_PROMPT, &TerminalReader::promptOf);
    ::el_set(editor, EL_EDITOR, "emacs");
    ::el_set(editor, EL_SIGNAL, 0);
    ::el_set(editor, EL_GETCFN, &TerminalReader::nextCharacter);
    ::el_set(editor, EL_HIST, ::history, history_.get());
    ::el_set(editor, EL_ADDFN, "vendra-complete", "Complete the name before the cursor", &TerminalReader::tabTyped);
    ::el_set(editor, EL_BIND, "^I", "vendra-complete", nullptr);
    ::el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    ::el_source(editor, nullptr);

    HistEvent event;
    ::history(history_.get(), &event, H_SETSIZE, kHistoryLines);
    ::history(history_.get(), &event, H_SETUNIQUE, 1);
    if (std::filesystem::path home = homeFolder(); !home.empty()) {
        historyFile_ = home / ".vendra_history";
        ::history(history_.get(), &event, H_LOAD, historyFile_.c_str());
    }
}

TerminalReader::~TerminalReader()
{
    HistEvent event;
    if (!historyFile_.empty())
        ::history(history_.get(), &event, H_SAVE, historyFile_.c_str());
}

Line TerminalReader::read(const std::string& prompt)
{
    prompt_ = prompt;
    end_ = Line::Kind::end;
    ::el_resize(editor_.get());
    // The editor would do this only after the prompt stands, and lose or echo twice what is typed in between.
    ::el_set(editor_.get(), EL_PREP_TERM, 1);
    int length = 0;
    const char* text = ::el_gets(editor_.get(), &length);
    if (failure_)
        std::rethrow_exception(std::exchange(failure_, nullptr));
    if (!text || length <= 0) {
        ::el_reset(editor_.get());
        std::fputc('\n', stdout);
        std::fflush(stdout);
        return {end_, {}};
    }
    std::string line(text, static_cast<std::size_t>(length));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    remember(line);
    return {Line::Kind::text, line};
}

void TerminalReader::remember(const std::string& line)
{
    HistEvent event;
    if (line.find_first_not_of(" \t") != std::string::npos)
        ::history(history_.get(), &event, H_ENTER, line.c_str());
}

int TerminalReader::readCharacter(wchar_t& character)
{
    std::mbstate_t state{};
    for (;;) {
        Wake wake = wait_(STDIN_FILENO);
        if (wake == Wake::redraw) {
            ::el_set(editor_.get(), EL_REFRESH);
            continue;
        }
        if (wake != Wake::input) {
            end_ = wake == Wake::leave ? Line::Kind::leave : Line::Kind::interrupted;
            errno = EINTR;
            return -1;
        }
        char byte = 0;
        ssize_t got = ::read(STDIN_FILENO, &byte, 1);
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (got <= 0)
            return static_cast<int>(got);
        std::size_t used = std::mbrtowc(&character, &byte, 1, &state);
        if (used == static_cast<std::size_t>(-2))
            continue; // more bytes belong to the character
        if (used == static_cast<std::size_t>(-1))
            character = static_cast<unsigned char>(byte);
        return 1;
    }
}

unsigned char TerminalReader::completeWord()
{
    const LineInfo* info = ::el_line(editor_.get());
    std::string line(info->buffer, info->lastchar);
    auto cursor = static_cast<std::size_t>(info->cursor - info->buffer);
    if (line.find_first_not_of(" \t") >= cursor) {
        ::el_insertstr(editor_.get(), "    ");
        return CC_REFRESH;
    }
    rqe::Completions found = complete_(line, cursor);
    if (found.candidates.empty())
        return CC_REFRESH_BEEP;
    std::string prefix = commonPrefix(found.candidates);
    std::size_t typed = cursor - found.replaceFrom;
    if (prefix.size() > typed) {
        ::el_insertstr(editor_.get(), prefix.c_str() + typed);
        return CC_REFRESH;
    }
    if (found.candidates.size() == 1)
        return CC_NORM;
    showCandidates(found.candidates);
    return CC_REDISPLAY;
}

void TerminalReader::showCandidates(const std::vector<std::string>& candidates)
{
    std::size_t width = 0;
    for (const std::string& candidate : candidates)
        width = std::max(width, candidate.size() + 2);
    std::size_t columns = std::max<std::size_t>(1, 80 / width);
    std::string text = "\n";
    std::size_t shown = std::min(candidates.size(), kMostShown);
    for (std::size_t i = 0; i < shown; ++i) {
        text += candidates[i];
        bool last = i + 1 == shown || (i + 1) % columns == 0;
        text += last ? "\n" : std::string(width - candidates[i].size(), ' ');
    }
    if (shown < candidates.size())
        text += "… and " + std::to_string(candidates.size() - shown) + " more\n";
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

} // namespace

std::unique_ptr<LineReader> makeTerminalReader(Waiter wait, Completer complete)
{
    return std::make_unique<TerminalReader>(std::move(wait), std::move(complete));
}

} // namespace vendra
