#include "connector/json/JsonText.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <deque>
#include <system_error>
#include <utility>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/json/JsonSerializer.h"

namespace connector::json {

namespace {

using Poco::Dynamic::Var;

/// Bytes that stand for themselves in a string and need no second look.
constexpr auto kPlain = [] {
    std::array<bool, 256> plain{};
    for (unsigned byte = 0x20; byte < 0x80; ++byte)
        plain[byte] = byte != '"' && byte != '\\';
    return plain;
}();

constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

/// The length of the well-formed sequence (Unicode 15, table 3-7) at `text`, whose first byte is not ASCII; else 0.
std::size_t utf8Length(const char* text, const char* end) noexcept
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto available = static_cast<std::size_t>(end - text);
    const unsigned first = byte(0);
    const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    if (length == 0 || available < length)
        return 0;
    const unsigned low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < low || byte(1) > high)
        return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

void appendUtf8(std::string& out, std::uint32_t code)
{
    const auto put = [&](std::uint32_t byte) { out += static_cast<char>(byte); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | code >> 6);
        put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

class Reader
{
public:
    Reader(std::string_view text, const Limits& limits)
        : begin_(text.data()), next_(begin_), end_(begin_ + text.size()), limits_(limits)
    {}

    Var readText()
    {
        if (static_cast<std::size_t>(end_ - begin_) > limits_.bytes)
            fail(begin_ + limits_.bytes, "the text is longer than " + std::to_string(limits_.bytes) + " bytes");
        Var value;
        readValue(value, 0);
        skipSpace();
        if (next_ != end_)
            failHere("the end of the text");
        return value;
    }

private:
    [[noreturn]] void fail(const char* where, const std::string& what) const
    {
        throw JsonError("byte " + std::to_string(where - begin_) + ": " + what);
    }

    [[noreturn]] void failHere(const std::string& expected) const
    {
        fail(next_, "expected " + expected + " but found " + found(next_));
    }

    std::string found(const char* where) const
    {
        if (where == end_)
            return "the end of the text";
        const auto byte = static_cast<unsigned char>(*where);
        if (byte > 0x20 && byte < 0x7F)
            return {'\'', *where, '\''};
        constexpr char kDigits[] = "0123456789abcdef";
        return std::string("the byte 0x") + kDigits[byte >> 4] + kDigits[byte & 15];
    }

    bool at(char c) const noexcept { return next_ != end_ && *next_ == c; }

    void skipSpace() noexcept
    {
        while (next_ != end_ && (*next_ == ' ' || *next_ == '\n' || *next_ == '\r' || *next_ == '\t'))
            ++next_;
    }

    void readValue(Var& out, std::size_t depth)
    {
        skipSpace();
        if (++values_ > limits_.members)
            fail(next_, "more than " + std::to_string(limits_.members) + " values");
        const char first = next_ == end_ ? '\0' : *next_;
        if (first == '{')
            readObject(out, depth + 1);
        else if (first == '[')
            readArray(out, depth + 1);
        else if (first == '"')
            Var(readString()).swap(out);
        else if (first == '-' || isDigit(first))
            readNumber(out);
        else if (first == 't')
            readWord("true", Var(true), out);
        else if (first == 'f')
            readWord("false", Var(false), out);
        else if (first == 'n')
            readWord("null", Var(), out);
        else
            failHere("a value");
    }

    void readWord(std::string_view word, Var value, Var& out)
    {
        for (const char c : word) {
            if (!at(c))
                failHere('"' + std::string(word) + '"');
            ++next_;
        }
        value.swap(out);
    }

    void enter(std::size_t depth)
    {
        if (depth > limits_.depth)
            fail(next_, "nested deeper than " + std::to_string(limits_.depth));
        ++next_;
        skipSpace();
    }

    void readArray(Var& out, std::size_t depth)
    {
        enter(depth);
        Poco::JSON::Array::Ptr array = new Poco::JSON::Array;
        if (at(']')) {
            ++next_;
        } else {
            for (bool more = true; more;) {
                Var value;
                readValue(value, depth);
                array->add(value);
                more = nextItem(']');
            }
        }
        Var(array).swap(out);
    }

    /// After an item: true behind a comma, false behind `close`.
    bool nextItem(char close)
    {
        skipSpace();
        if (!at(',') && !at(close))
            failHere(std::string("',' or '") + close + "'");
        return *next_++ == ',';
    }

    void readObject(Var& out, std::size_t depth)
    {
        struct Member
        {
            const char* where;
            std::string name;
            Var value;
        };
        enter(depth);
        std::deque<Member> members;
        if (at('}')) {
            ++next_;
        } else {
            for (bool more = true; more;) {
                skipSpace();
                if (!at('"'))
                    failHere("a member's name");
                auto& member = members.emplace_back();
                member.where = next_;
                member.name = readString();
                if (member.name.size() > limits_.nameBytes)
                    fail(member.where, "a name of more than " + std::to_string(limits_.nameBytes) + " bytes");
                skipSpace();
                if (!at(':'))
                    failHere("':'");
                ++next_;
                readValue(member.value, depth);
                more = nextItem('}');
            }
        }

        const bool ordered = members.size() <= kMaxOrderedMembers;
        Poco::JSON::Object::Ptr object = new Poco::JSON::Object(ordered ? Poco::JSON_PRESERVE_KEY_ORDER : 0);
        for (const auto& member : members) {
            if (object->has(member.name))
                fail(member.where, "the name \"" + member.name + "\" appears twice in one object");
            object->set(member.name, member.value);
        }
        Var(object).swap(out);
    }

    std::string readString()
    {
        ++next_;
        std::string text;
        for (;;) {
            const char* run = next_;
            while (next_ != end_ && kPlain[static_cast<unsigned char>(*next_)])
                ++next_;
            text.append(run, next_);
            if (next_ == end_)
                failHere("a string's closing '\"'");
            const auto byte = static_cast<unsigned char>(*next_);
            if (byte == '"') {
                ++next_;
                return text;
            }
            if (byte == '\\') {
                readEscape(text);
            } else if (byte < 0x20) {
                fail(next_, "a control character in a string has to be escaped; found " + found(next_));
            } else {
                const auto length = utf8Length(next_, end_);
                if (length == 0)
                    fail(next_, "invalid UTF-8; found " + found(next_));
                text.append(next_, length);
                next_ += length;
            }
        }
    }

    void readEscape(std::string& text)
    {
        constexpr std::string_view kNames = "\"\\/bfnrt";
        constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
        const char* const start = next_++;
        if (at('u')) {
            ++next_;
            readUnicodeEscape(text, start);
            return;
        }
        const auto index = next_ == end_ ? std::string_view::npos : kNames.find(*next_);
        if (index == std::string_view::npos)
            failHere("one of \"\\/bfnrtu behind a backslash");
        text += kMeanings[index];
        ++next_;
    }

    void readUnicodeEscape(std::string& text, const char* start)
    {
        std::uint32_t code = readHex();
        if (code >= 0xD800 && code <= 0xDFFF) {
            const bool paired = code < 0xDC00 && end_ - next_ >= 2 && next_[0] == '\\' && next_[1] == 'u';
            if (!paired)
                fail(start, "an unpaired surrogate");
            next_ += 2;
            const auto low = readHex();
            if (low < 0xDC00 || low > 0xDFFF)
                fail(start, "an unpaired surrogate");
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        }
        appendUtf8(text, code);
    }

    std::uint32_t readHex()
    {
        std::uint32_t code = 0;
        for (int i = 0; i < 4; ++i, ++next_) {
            const char c = next_ == end_ ? '\0' : *next_;
            if (isDigit(c))
                code = code << 4 | static_cast<std::uint32_t>(c - '0');
            else if ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))
                code = code << 4 | (static_cast<std::uint32_t>(c | 0x20) - 'a' + 10);
            else
                failHere("four hexadecimal digits");
        }
        return code;
    }

    void readNumber(Var& out)
    {
        const char* const start = next_;
        if (at('-'))
            ++next_;
        if (at('0'))
            ++next_;
        else
            readDigits();
        bool integer = true;
        if (at('.')) {
            integer = false;
            ++next_;
            readDigits();
        }
        if (at('e') || at('E')) {
            integer = false;
            ++next_;
            if (at('+') || at('-'))
                ++next_;
            readDigits();
        }
        if (static_cast<std::size_t>(next_ - start) > limits_.numberBytes)
            fail(start, "a number of more than " + std::to_string(limits_.numberBytes) + " bytes");
        if (!integer || !(readInteger<Poco::Int64>(start, out) || readInteger<Poco::UInt64>(start, out)))
            readDouble(start, out);
    }

    void readDigits()
    {
        if (next_ == end_ || !isDigit(*next_))
            failHere("a digit");
        while (next_ != end_ && isDigit(*next_))
            ++next_;
    }

    template <class Integer>
    bool readInteger(const char* start, Var& out) const
    {
        Integer value = 0;
        const auto [stop, error] = std::from_chars(start, next_, value);
        if (error != std::errc() || stop != next_)
            return false;
        Var(value).swap(out);
        return true;
    }

    void readDouble(const char* start, Var& out) const
    {
        double value = 0;
        if (std::from_chars(start, next_, value).ec == std::errc::result_out_of_range) {
            if (isLarge(start))
                fail(start, "a number beyond the range of doubles");
            value = *start == '-' ? -0.0 : 0.0;
        }
        Var(value).swap(out);
    }

    /// Whether a number outside the range of doubles is too large, not too small: whether it is 1 or more.
    bool isLarge(const char* start) const noexcept
    {
        if (*start == '-')
            ++start;
        const char* exponentMark = start;
        while (exponentMark != next_ && *exponentMark != 'e' && *exponentMark != 'E')
            ++exponentMark;
        long exponent = 0;
        if (exponentMark != next_) {
            const char* digits = exponentMark + 1;
            const bool negative = *digits == '-';
            if (negative || *digits == '+')
                ++digits;
            if (std::from_chars(digits, next_, exponent).ec != std::errc())
                return !negative;
            exponent = negative ? -exponent : exponent;
        }
        // The exponent of the first digit that is not zero.
        const std::string_view mantissa(start, static_cast<std::size_t>(exponentMark - start));
        const auto point = std::min(mantissa.find('.'), mantissa.size());
        const auto first = mantissa.find_first_of("123456789");
        const auto position = static_cast<long>(first) - static_cast<long>(point);
        return exponent > position; // their difference may be beyond the type
    }

    const char* const begin_;
    const char* next_;
    const char* const end_;
    const Limits& limits_;
    std::size_t values_ = 0;
};

} // namespace

Var parse(std::string_view text, const Limits& limits) { return Reader(text, limits).readText(); }

} // namespace connector::json
