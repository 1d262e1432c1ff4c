#include "connector/json/JsonText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "connector/json/JsonFields.h"
#include "connector/json/JsonNumber.h"
#include "connector/json/JsonSerializer.h"
#include "connector/json/UnsoundJson.h"
#include "platform/fl/utf8.h"

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

constexpr std::size_t kUsualMembers = 5;
constexpr std::size_t kFewMembers = 16;

/// Takes the place of a text that nobody wants.
struct NoText
{
    void append(const char*, const char*) noexcept {}
    void append(const char*, std::size_t) noexcept {}
    NoText& operator+=(char) noexcept { return *this; }
};

class Reader
{
public:
    Reader(std::string_view text, const Limits& limits)
        : begin_(text.data()), next_(begin_), end_(begin_ + text.size()), limits_(limits)
    {}

    Var readText()
    {
        Var value;
        checkLength();
        readValue(value, 0);
        checkEnd();
        return value;
    }

    std::vector<RawValue> readRawText()
    {
        std::vector<RawValue> values;
        checkLength();
        skipSpace();
        if (!at('[')) {
            values.push_back(readRawOrFault(0));
        } else {
            eachItem(1, [&] {
                if (values.size() == limits_.members)
                    fail(next_, "more than " + std::to_string(limits_.members) + " values");
                values.push_back(readRawOrFault(1));
            });
        }
        checkEnd();
        return values;
    }

    void checkText()
    {
        checkLength();
        skipValue(beginValue(), 0);
        checkEnd();
    }

private:
    void checkLength() const
    {
        if (static_cast<std::size_t>(end_ - begin_) > limits_.bytes)
            fail(begin_ + limits_.bytes, "the text is longer than " + std::to_string(limits_.bytes) + " bytes");
    }

    void checkEnd()
    {
        skipSpace();
        if (next_ != end_)
            failHere("the end of the text");
    }

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

    /// The first character of the next value, which counts from here on; '\0' at the end.
    char beginValue()
    {
        skipSpace();
        if (++values_ > limits_.members)
            fail(next_, "more than " + std::to_string(limits_.members) + " values");
        return next_ == end_ ? '\0' : *next_;
    }

    void readValue(Var& out, std::size_t depth)
    {
        const char first = beginValue();
        if (first == '{')
            readObject(out, depth + 1);
        else if (first == '[')
            readArray(out, depth + 1);
        else if (first == '"')
            Var(readString()).swap(out);
        else if (first == '-' || isDigit(first))
            readNumber(out);
        else if (first == 't' || first == 'f')
            Var(skipWord() == "true").swap(out);
        else if (first == 'n')
            skipWord();
        else
            failHere("a value");
    }

    /// What `readValue` does, but for the value; `first` is what `beginValue` answered.
    void skipValue(char first, std::size_t depth)
    {
        if (first == '{') {
            std::vector<Name> names;
            names.reserve(kUsualMembers);
            eachMember(depth + 1, [&](Name&& name) {
                names.push_back(std::move(name));
                skipValue(beginValue(), depth + 1);
            });
            checkNames(std::move(names));
        } else if (first == '[') {
            eachItem(depth + 1, [&] { skipValue(beginValue(), depth + 1); });
        } else if (first == '"') {
            NoText none;
            scanString(none);
        } else if (first == '-' || isDigit(first)) {
            skipNumber();
        } else if (first == 't' || first == 'f' || first == 'n') {
            skipWord();
        } else {
            failHere("a value");
        }
    }

    std::string_view skipWord()
    {
        const std::string_view word = at('t') ? "true" : at('f') ? "false" : "null";
        for (const char c : word) {
            if (!at(c))
                failHere('"' + std::string(word) + '"');
            ++next_;
        }
        return word;
    }

    void enter(std::size_t depth)
    {
        if (depth > limits_.depth)
            fail(next_, "nested deeper than " + std::to_string(limits_.depth));
        ++next_;
        skipSpace();
    }

    template <class Item>
    void eachItem(std::size_t depth, Item item)
    {
        enter(depth);
        if (at(']')) {
            ++next_;
            return;
        }
        do {
            item();
        } while (nextItem(']'));
    }

    void readArray(Var& out, std::size_t depth)
    {
        Poco::JSON::Array::Ptr array = new Poco::JSON::Array;
        eachItem(depth, [&] {
            Var value;
            readValue(value, depth);
            array->add(value);
        });
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

    struct Name
    {
        const char* where;
        std::string text;
    };

    /// `member` is called behind each name.
    template <class Member>
    void eachMember(std::size_t depth, Member member)
    {
        enter(depth);
        if (at('}')) {
            ++next_;
            return;
        }
        do {
            skipSpace();
            if (!at('"'))
                failHere("a member's name");
            Name name{next_, {}};
            name.text = readString();
            if (name.text.size() > limits_.nameBytes)
                fail(name.where, "a name of more than " + std::to_string(limits_.nameBytes) + " bytes");
            skipSpace();
            if (!at(':'))
                failHere("':'");
            ++next_;
            member(std::move(name));
        } while (nextItem('}'));
    }

    void readObject(Var& out, std::size_t depth)
    {
        struct Member
        {
            Name name;
            Var value;
        };
        std::vector<Member> members;
        members.reserve(kUsualMembers);
        eachMember(depth, [&](Name&& name) {
            auto& member = members.emplace_back(Member{std::move(name), {}});
            readValue(member.value, depth);
        });

        const bool ordered = members.size() <= kMaxOrderedMembers;
        Poco::JSON::Object::Ptr object = new Poco::JSON::Object(ordered ? Poco::JSON_PRESERVE_KEY_ORDER : 0);
        for (auto& member : members) {
            if (object->has(member.name.text))
                failTwice(member.name);
            setMember(*object, member.name.text, member.value);
        }
        Var(object).swap(out);
    }

    /// Without a copy of the value where the object is small.
    static void setMember(Poco::JSON::Object& object, const std::string& name, Var& value)
    {
        if (object.size() >= kFewMembers) {
            object.set(name, value);
            return;
        }
        object.set(name, Var());
        std::find_if(object.begin(), object.end(), [&](const auto& member) {
            return member.first == name;
        })->second.swap(value);
    }

    /// Within an array, `depth` being 1, or alone.
    RawValue readRawOrFault(std::size_t depth)
    {
        skipSpace();
        const char* const start = next_;
        values_ = 0;
        try {
            return readRaw(beginValue(), depth);
        } catch (const JsonError& error) {
            const char* const end = endOfUnsound(start, end_);
            if (!end || end == start || (end == end_) != (depth == 0))
                throw;
            next_ = end;
            return unsound({start, static_cast<std::size_t>(end - start)}, depth, error.what());
        }
    }

    RawValue unsound(std::string_view text, std::size_t depth, std::string_view error) const
    {
        RawValue::Fault fault;
        fault.what = error.substr(error.find(": ") + 2); // behind the place
        std::vector<RawValue::Member> members;
        Limits within = limits_;
        within.depth -= std::min(within.depth, depth + 1);
        for (const auto& [name, value] : membersOfUnsound(text)) {
            const auto isSound = [&within](std::string_view part) {
                try {
                    check(part, within);
                    return true;
                } catch (const JsonError&) {
                    return false;
                }
            };
            if (!isSound(name))
                continue;
            std::string unescaped = *rawString(name);
            if (isSound(value))
                members.push_back({std::move(unescaped), value});
            else if (fault.member.empty())
                fault.member = std::move(unescaped);
        }
        return RawValue(text, std::move(members), std::make_shared<const RawValue::Fault>(std::move(fault)));
    }

    RawValue readRaw(char first, std::size_t depth)
    {
        const char* const start = next_;
        std::vector<RawValue::Member> members;
        if (first == '{') {
            std::vector<Name> names;
            names.reserve(kUsualMembers);
            members.reserve(kUsualMembers);
            eachMember(depth + 1, [&](Name&& name) {
                const char next = beginValue();
                const char* const value = next_;
                skipValue(next, depth + 1);
                members.push_back({name.text, textFrom(value)});
                names.push_back(std::move(name));
            });
            checkNames(std::move(names));
        } else {
            skipValue(first, depth);
        }
        return RawValue(textFrom(start), std::move(members));
    }

    std::string_view textFrom(const char* start) const noexcept
    {
        return {start, static_cast<std::size_t>(next_ - start)};
    }

    [[noreturn]] void failTwice(const Name& name) const
    {
        fail(name.where, "the name \"" + name.text + "\" appears twice in one object");
    }

    void checkNames(std::vector<Name> names) const
    {
        if (names.size() <= kFewMembers) {
            for (auto name = names.begin(); name != names.end(); ++name)
                if (std::any_of(names.begin(), name, [&](const Name& other) { return other.text == name->text; }))
                    failTwice(*name);
            return;
        }
        std::sort(names.begin(), names.end(), [](const Name& one, const Name& other) {
            return std::tie(one.text, one.where) < std::tie(other.text, other.where);
        });
        const Name* twice = nullptr;
        for (std::size_t i = 1; i < names.size(); ++i) {
            if (names[i].text == names[i - 1].text && (!twice || names[i].where < twice->where))
                twice = &names[i];
        }
        if (twice)
            failTwice(*twice);
    }

    std::string readString()
    {
        std::string text;
        scanString(text);
        return text;
    }

    template <class Text>
    void scanString(Text& text)
    {
        ++next_;
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
                return;
            }
            if (byte == '\\') {
                readEscape(text);
            } else if (byte < 0x20) {
                fail(next_, "a control character in a string has to be escaped; found " + found(next_));
            } else {
                const auto step = fl::i18n::decodeUtf8(next_, end_);
                if (!step.valid)
                    fail(next_, "invalid UTF-8; found " + found(next_));
                text.append(next_, step.length);
                next_ += step.length;
            }
        }
    }

    template <class Text>
    void readEscape(Text& text)
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

    template <class Text>
    void readUnicodeEscape(Text& text, const char* start)
    {
        std::uint32_t code = readHex();
        if (code >= 0xD800 && code <= 0xDFFF) {
            const char* const behind = next_;
            const bool paired = code < 0xDC00 && end_ - next_ >= 2 && next_[0] == '\\' && next_[1] == 'u';
            std::uint32_t low = 0;
            if (paired) {
                next_ += 2;
                low = readHex();
            }
            if (low >= 0xDC00 && low <= 0xDFFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
            } else if (limits_.loneSurrogates) {
                code = 0xFFFD;
                next_ = behind;
            } else {
                fail(start, "an unpaired surrogate");
            }
        }
        char bytes[4];
        text.append(bytes, fl::i18n::putUtf8(bytes, code));
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
        const bool integer = scanNumber();
        if (!integer || !(readInteger<Poco::Int64>(start, out) || readInteger<Poco::UInt64>(start, out)))
            Var(toDouble(start)).swap(out);
    }

    void skipNumber()
    {
        const char* const start = next_;
        if (!scanNumber() || next_ - start > std::numeric_limits<double>::max_exponent10)
            toDouble(start); // refuses what is beyond the doubles
    }

    /// True without fraction and exponent.
    bool scanNumber()
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
        return integer;
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

    double toDouble(const char* start) const
    {
        const auto value = doubleOf(textFrom(start));
        if (!value)
            fail(start, "a number beyond the range of doubles");
        return *value;
    }

    const char* const begin_;
    const char* next_;
    const char* const end_;
    const Limits& limits_;
    std::size_t values_ = 0;
};

} // namespace

Var parse(std::string_view text, const Limits& limits) { return Reader(text, limits).readText(); }

void check(std::string_view text, const Limits& limits) { Reader(text, limits).checkText(); }

std::string_view RawValue::member(std::string_view name) const noexcept
{
    const auto found =
        std::find_if(members_.begin(), members_.end(), [&](const Member& member) { return member.name == name; });
    return found == members_.end() ? std::string_view() : found->text;
}

std::vector<RawValue> parseRaw(std::string_view text, const Limits& limits)
{
    if (const auto start = text.find_first_not_of(" \n\r\t");
        start == std::string_view::npos || (text[start] != '[' && text[start] != '{'))
        throw JsonError("expected an array or an object, found " + describe(parse(text, limits)));
    return Reader(text, limits).readRawText();
}

std::optional<std::string> rawString(std::string_view text)
{
    if (!text.starts_with('"'))
        return std::nullopt;
    if (text.find('\\') == std::string_view::npos)
        return std::string(text.substr(1, text.size() - 2));
    Limits limits;
    limits.bytes = text.size();
    limits.loneSurrogates = true;
    return parse(text, limits).extract<std::string>();
}

} // namespace connector::json
