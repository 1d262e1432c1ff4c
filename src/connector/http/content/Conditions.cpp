#include "connector/http/content/Conditions.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "connector/http/HttpText.h"
#include "connector/http/content/HttpDate.h"

namespace connector::http::content {

namespace {

void appendHex(std::string& text, std::uint64_t value)
{
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
    text.append(digits.data(), end);
}

/// One field's list of tags. A weak tag is equal to a strong one only where that is enough.
bool listHasTag(std::string_view list, std::string_view wanted, bool weakIsEnough) noexcept
{
    if (trimmed(list) == "*")
        return true;
    for (;;) {
        list.remove_prefix(std::min(list.find_first_not_of(" \t,"), list.size()));
        const bool weak = list.starts_with("W/");
        if (weak)
            list.remove_prefix(2);
        const auto close = list.starts_with('"') ? list.find('"', 1) : std::string_view::npos;
        if (close == std::string_view::npos)
            return false;
        if (list.substr(0, close + 1) == wanted && (weakIsEnough || !weak))
            return true;
        list.remove_prefix(close + 1);
    }
}

/// None when no such field is there.
std::optional<bool> tagMatches(const Headers& headers, std::string_view field, std::string_view tag, bool weakIsEnough)
{
    std::optional<bool> result;
    for (const auto& [name, value] : headers.fields())
        if (equalsIgnoringCase(name, field))
            result = result.value_or(false) || listHasTag(value, tag, weakIsEnough);
    return result;
}

std::optional<std::int64_t> dateIn(const Headers& headers, std::string_view field, std::int64_t now)
{
    const std::string* value = headers.find(field);
    return value && headers.count(field) == 1 ? parseHttpDate(*value, now) : std::nullopt;
}

} // namespace

Validators validatorsOf(const OpenFile& file, Coding coding, std::int64_t now)
{
    Validators validators;
    std::string& tag = validators.entityTag;
    tag.reserve(64);
    tag += '"';
    appendHex(tag, file.inode);
    tag += '-';
    appendHex(tag, file.size);
    tag += '-';
    appendHex(tag, static_cast<std::uint64_t>(file.modifiedSeconds));
    tag += '.';
    appendHex(tag, file.modifiedNanoseconds);
    if (coding != Coding::identity)
        tag += coding == Coding::brotli ? "-br" : "-gz";
    tag += '"';
    validators.modified = std::min(file.modifiedSeconds, now);
    return validators;
}

Verdict checkConditions(const Headers& headers, const Validators& validators, std::int64_t now)
{
    if (const auto matched = tagMatches(headers, "If-Match", validators.entityTag, false)) {
        if (!*matched)
            return Verdict::failed;
    } else if (const auto since = dateIn(headers, "If-Unmodified-Since", now); since && validators.modified > *since) {
        return Verdict::failed;
    }

    if (const auto matched = tagMatches(headers, "If-None-Match", validators.entityTag, true))
        return *matched ? Verdict::notModified : Verdict::proceed;
    const auto since = dateIn(headers, "If-Modified-Since", now);
    return since && validators.modified <= *since ? Verdict::notModified : Verdict::proceed;
}

bool rangeApplies(const Headers& headers, const Validators& validators, std::int64_t now)
{
    const std::string* condition = headers.find("If-Range");
    if (!condition)
        return true;
    if (condition->ends_with('"'))
        return *condition == validators.entityTag;
    const auto date = dateIn(headers, "If-Range", now);
    return date && *date == validators.modified;
}

} // namespace connector::http::content
