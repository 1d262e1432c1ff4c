#include "connector/common/LogRules.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace connector::common {

namespace {

struct LevelText
{
    const char* upper;
    std::string_view lower;
};

/// In the order of LogLevel.
constexpr LevelText kLevels[] = {{"OFF", "off"},   {"ERROR", "error"}, {"WARNING", "warning"},
                                 {"INFO", "info"}, {"DEBUG", "debug"}, {"TRACE", "trace"}};

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool isSource(std::string_view text)
{
    const auto allowed = [](unsigned char c) { return std::isalnum(c) || c == '_' || c == '-' || c == ':'; };
    bool empty = true;
    for (const char c : text) {
        if (c == '.' ? empty : !allowed(static_cast<unsigned char>(c)))
            return false;
        empty = c == '.';
    }
    return !empty;
}

} // namespace

std::optional<LogLevel> levelNamed(std::string_view text) noexcept
{
    for (std::size_t i = 0; i < std::size(kLevels); ++i) {
        if (kLevels[i].lower == text)
            return static_cast<LogLevel>(i);
    }
    return std::nullopt;
}

const char* levelName(LogLevel level) noexcept { return kLevels[static_cast<std::size_t>(level)].upper; }

LogRules::LogRules(std::string_view specification)
{
    if (trimmed(specification).empty())
        return;
    for (bool more = true; more;) {
        const auto comma = specification.find(',');
        const auto part = trimmed(specification.substr(0, comma));
        more = comma != std::string_view::npos;
        if (more)
            specification.remove_prefix(comma + 1);

        const auto equals = part.find('=');
        const auto source = equals == std::string_view::npos ? "*" : trimmed(part.substr(0, equals));
        const auto level = levelNamed(equals == std::string_view::npos ? part : trimmed(part.substr(equals + 1)));
        if (!level || (source != "*" && !isSource(source)))
            throw std::invalid_argument("The log specification's part \"" + std::string(part) +
                                        "\" is neither LEVEL nor SOURCE=LEVEL, where LEVEL is off, error, warning, "
                                        "info, debug or trace and SOURCE a dotted name or *.");
        if (source == "*")
            all_ = *level;
        else
            levels_.insert_or_assign(std::string(source), *level);
    }
}

LogLevel LogRules::levelOf(std::string_view source) const noexcept
{
    while (!source.empty()) {
        if (const auto found = levels_.find(source); found != levels_.end())
            return found->second;
        const auto dot = source.rfind('.');
        source = dot == std::string_view::npos ? std::string_view() : source.substr(0, dot);
    }
    return all_;
}

LogLevel LogRules::ceiling() const noexcept
{
    auto highest = all_;
    for (const auto& [source, level] : levels_)
        highest = std::max(highest, level);
    return highest;
}

} // namespace connector::common
