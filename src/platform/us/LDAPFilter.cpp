#include "platform/us/LDAPFilter.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/us/ServiceReferenceBase.h"

namespace us {

namespace {

constexpr int kMaxDepth = 64;

enum class Kind
{
    kAnd,
    kOr,
    kNot,
    kEqual,
    kApprox,
    kAtLeast,
    kAtMost
};

using Lookup = std::function<const Any*(const std::string&)>;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string folded(std::string_view text)
{
    std::string result;
    for (const char c : text)
        if (!isBlank(c))
            result += detail::lower(c);
    return result;
}

/// `pieces` are what stands between the wildcards.
bool matchesPattern(std::string_view text, const std::vector<std::string>& pieces)
{
    if (pieces.size() == 1)
        return text == pieces.front();
    if (!text.starts_with(pieces.front()))
        return false;
    text.remove_prefix(pieces.front().size());
    for (std::size_t i = 1; i + 1 < pieces.size(); ++i) {
        const auto at = text.find(pieces[i]);
        if (at == std::string_view::npos)
            return false;
        text.remove_prefix(at + pieces[i].size());
    }
    return text.ends_with(pieces.back());
}

template <class Number>
std::optional<Number> parsed(std::string_view text)
{
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

} // namespace

struct LDAPFilter::Node
{
    Kind kind = Kind::kEqual;
    std::vector<Node> operands;
    std::string attribute;
    std::vector<std::string> pieces;

    bool matches(const Lookup& lookup) const
    {
        const auto holds = [&](const Node& node) { return node.matches(lookup); };
        switch (kind) {
        case Kind::kAnd:
            return std::all_of(operands.begin(), operands.end(), holds);
        case Kind::kOr:
            return std::any_of(operands.begin(), operands.end(), holds);
        case Kind::kNot:
            return !holds(operands.front());
        default:
            const Any* value = lookup(attribute);
            return value && (isPresence() || matchesValue(*value));
        }
    }

private:
    bool isPresence() const
    {
        return kind == Kind::kEqual && pieces.size() == 2 && pieces[0].empty() && pieces[1].empty();
    }

    bool matchesValue(const Any& value) const
    {
        if (const auto* text = any_cast<std::string>(&value))
            return matchesText(*text);
        if (const auto* flag = any_cast<bool>(&value))
            return matchesBool(*flag);
        if (const auto* character = any_cast<char>(&value))
            return matchesText(std::string_view(character, 1));
        if (const auto* texts = any_cast<std::vector<std::string>>(&value))
            return std::any_of(texts->begin(), texts->end(), [&](const auto& text) { return matchesText(text); });
        if (const auto* values = any_cast<std::vector<Any>>(&value))
            return std::any_of(values->begin(), values->end(), [&](const auto& any) { return matchesValue(any); });
        return matchesIntegerOf<signed char, unsigned char, short, unsigned short, int, unsigned, long, unsigned long,
                                long long, unsigned long long>(value) ||
               matchesRealOf<float, double>(value);
    }

    bool matchesText(std::string_view text) const
    {
        switch (kind) {
        case Kind::kEqual:
            return matchesPattern(text, pieces);
        case Kind::kApprox: {
            std::vector<std::string> foldedPieces;
            for (const std::string& piece : pieces)
                foldedPieces.push_back(folded(piece));
            return matchesPattern(folded(text), foldedPieces);
        }
        case Kind::kAtLeast:
            return text >= literal();
        default:
            return text <= literal();
        }
    }

    bool matchesBool(bool flag) const
    {
        return (kind == Kind::kEqual || kind == Kind::kApprox) &&
               detail::equalIgnoringCase(literal(), flag ? "true" : "false");
    }

    template <class... Integers>
    bool matchesIntegerOf(const Any& value) const
    {
        return (... || matchesInteger(any_cast<Integers>(&value)));
    }

    template <class Integer>
    bool matchesInteger(const Integer* value) const
    {
        if (!value)
            return false;
        const std::string text = literal();
        if (const auto wanted = parsed<long long>(text))
            return ordered(std::cmp_less(*value, *wanted), std::cmp_greater(*value, *wanted));
        if (const auto wanted = parsed<unsigned long long>(text))
            return ordered(std::cmp_less(*value, *wanted), std::cmp_greater(*value, *wanted));
        return false;
    }

    template <class... Reals>
    bool matchesRealOf(const Any& value) const
    {
        return (... || matchesReal(any_cast<Reals>(&value)));
    }

    template <class Real>
    bool matchesReal(const Real* value) const
    {
        if (!value)
            return false;
        const auto wanted = parsed<Real>(literal());
        if (!wanted || *value != *value || *wanted != *wanted)
            return false;
        return ordered(*value<*wanted, *value> * wanted);
    }

    bool ordered(bool less, bool greater) const
    {
        return kind == Kind::kAtLeast ? !less : kind == Kind::kAtMost ? !greater : !less && !greater;
    }

    /// The value where wildcards mean nothing.
    std::string literal() const
    {
        std::string text = pieces.front();
        for (std::size_t i = 1; i < pieces.size(); ++i)
            text += "*" + pieces[i];
        return text;
    }
};

class LDAPFilter::Parser
{
public:
    explicit Parser(std::string_view text) : text_(text) {}

    Node parse()
    {
        if (text_.empty())
            fail("Null query");
        Node node = filter(0);
        skipBlanks();
        if (at_ != text_.size())
            fail("Trailing garbage");
        return node;
    }

private:
    Node filter(int depth)
    {
        skipBlanks();
        if (depth > kMaxDepth || peek() != '(')
            fail("Malformed query");
        ++at_;
        skipBlanks();
        Node node;
        switch (peek()) {
        case '&':
            node.kind = Kind::kAnd;
            break;
        case '|':
            node.kind = Kind::kOr;
            break;
        case '!':
            node.kind = Kind::kNot;
            break;
        default:
            comparison(node);
            return node;
        }
        ++at_;
        operands(node, depth);
        return node;
    }

    void operands(Node& node, int depth)
    {
        skipBlanks();
        while (peek() == '(') {
            node.operands.push_back(filter(depth + 1));
            skipBlanks();
        }
        const bool enough = node.kind == Kind::kNot ? node.operands.size() == 1 : !node.operands.empty();
        if (peek() != ')' || !enough)
            fail("Malformed query");
        ++at_;
    }

    void comparison(Node& node)
    {
        const auto start = at_;
        while (std::string_view("=<>~()").find(peek()) == std::string_view::npos)
            ++at_;
        std::string_view name = text_.substr(start, at_ - start);
        while (!name.empty() && isBlank(name.back()))
            name.remove_suffix(1);
        if (name.empty())
            fail("Malformed query");
        node.attribute = name;
        node.kind = comparisonOperator();
        value(node);
    }

    Kind comparisonOperator()
    {
        const char first = peek();
        if (first == '=') {
            ++at_;
            return Kind::kEqual;
        }
        if (first == '(' || first == ')' || at_ + 1 >= text_.size() || text_[at_ + 1] != '=')
            fail("Undefined operator");
        at_ += 2;
        return first == '~' ? Kind::kApprox : first == '>' ? Kind::kAtLeast : Kind::kAtMost;
    }

    void value(Node& node)
    {
        node.pieces.emplace_back();
        for (char c = peek(); c != ')'; c = peek()) {
            if (c == '(')
                fail("Malformed query");
            ++at_;
            if (c == '*') {
                node.pieces.emplace_back();
                continue;
            }
            if (c == '\\') {
                c = peek();
                ++at_;
            }
            node.pieces.back() += c;
        }
        ++at_;
    }

    char peek() const
    {
        if (at_ >= text_.size())
            fail("Unexpected end of query");
        return text_[at_];
    }

    void skipBlanks()
    {
        while (at_ < text_.size() && isBlank(text_[at_]))
            ++at_;
    }

    [[noreturn]] void fail(const char* what) const
    {
        throw std::invalid_argument(std::string(what) + " at \"" + std::string(text_.substr(at_)) + "\" of \"" +
                                    std::string(text_) + "\"");
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

LDAPFilter::LDAPFilter(const std::string& text) : text_(text), root_(std::make_shared<const Node>(Parser(text).parse()))
{}

bool LDAPFilter::Match(const detail::PropertyMap& properties) const
{
    return root_ && root_->matches([&](const std::string& name) {
        const auto found = properties.find(name);
        return found == properties.end() ? nullptr : &found->second;
    });
}

bool LDAPFilter::Match(const ServiceReferenceBase& reference) const
{
    const detail::PropertyMapPtr properties = reference.properties();
    return properties && Match(*properties);
}

bool LDAPFilter::Match(const ServiceProperties& properties) const
{
    return root_ && root_->matches([&](const std::string& name) {
        const auto found = std::find_if(properties.begin(), properties.end(), [&](const auto& property) {
            return detail::equalIgnoringCase(property.first, name);
        });
        return found == properties.end() ? nullptr : &found->second;
    });
}

bool LDAPFilter::MatchCase(const ServiceProperties& properties) const
{
    return root_ && root_->matches([&](const std::string& name) {
        const auto found = properties.find(name);
        return found == properties.end() ? nullptr : &found->second;
    });
}

} // namespace us
