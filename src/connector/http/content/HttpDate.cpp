#include "connector/http/content/HttpDate.h"

#include <array>
#include <chrono>

namespace connector::http::content {

namespace {

constexpr std::string_view kDays = "SunMonTueWedThuFriSat";
constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr std::int64_t kEndOfYear9999 = 253'402'300'799;
constexpr std::int64_t kDaySeconds = 86'400;

void writeDigits(char* at, unsigned value, int count) noexcept
{
    for (; count > 0; value /= 10)
        at[--count] = static_cast<char>('0' + value % 10);
}

struct Parts
{
    int year = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    std::string month;
};

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

bool isLetter(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool takeDigit(char c, int& value) noexcept
{
    value = value * 10 + (c - '0');
    return isDigit(c);
}

/// Y, D, h, m and s stand for a digit, _ for a digit of the day or a space, n for a letter of the month, w for any
/// letter, other characters for themselves.
bool matches(std::string_view text, std::string_view pattern, Parts& parts)
{
    if (text.size() != pattern.size())
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        bool fits = false;
        switch (pattern[i]) {
        case 'Y':
            fits = takeDigit(c, parts.year);
            break;
        case 'D':
            fits = takeDigit(c, parts.day);
            break;
        case '_':
            fits = c == ' ' || takeDigit(c, parts.day);
            break;
        case 'h':
            fits = takeDigit(c, parts.hour);
            break;
        case 'm':
            fits = takeDigit(c, parts.minute);
            break;
        case 's':
            fits = takeDigit(c, parts.second);
            break;
        case 'n':
            fits = isLetter(c);
            parts.month += c;
            break;
        case 'w':
            fits = isLetter(c);
            break;
        default:
            fits = c == pattern[i];
        }
        if (!fits)
            return false;
    }
    return true;
}

std::optional<std::int64_t> toSeconds(const Parts& parts)
{
    const auto month = kMonths.find(parts.month);
    if (month == std::string_view::npos || month % 3 != 0 || parts.hour > 23 || parts.minute > 59 || parts.second > 60)
        return std::nullopt;
    const std::chrono::year_month_day date{std::chrono::year(parts.year),
                                           std::chrono::month(static_cast<unsigned>(month / 3 + 1)),
                                           std::chrono::day(static_cast<unsigned>(parts.day))};
    if (!date.ok())
        return std::nullopt;
    const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
    return ((days * 24 + parts.hour) * 60 + parts.minute) * 60 + parts.second;
}

int yearOf(std::int64_t seconds)
{
    return int(std::chrono::year_month_day(std::chrono::sys_days(std::chrono::days(seconds / kDaySeconds))).year());
}

} // namespace

std::string formatHttpDate(std::int64_t seconds)
{
    if (seconds < 0 || seconds > kEndOfYear9999)
        return {};
    const std::chrono::sys_days day(std::chrono::days(seconds / kDaySeconds));
    const std::chrono::year_month_day date(day);
    const auto rest = static_cast<unsigned>(seconds % kDaySeconds);

    std::string text = "www, DD nnn YYYY hh:mm:ss GMT";
    text.replace(0, 3, kDays.substr(std::size_t{std::chrono::weekday(day).c_encoding()} * 3, 3));
    writeDigits(&text[5], unsigned(date.day()), 2);
    text.replace(8, 3, kMonths.substr(std::size_t{unsigned(date.month()) - 1} * 3, 3));
    writeDigits(&text[12], static_cast<unsigned>(int(date.year())), 4);
    writeDigits(&text[17], rest / 3'600, 2);
    writeDigits(&text[20], rest / 60 % 60, 2);
    writeDigits(&text[23], rest % 60, 2);
    return text;
}

std::optional<std::int64_t> parseHttpDate(std::string_view text, std::int64_t now)
{
    for (const std::string_view pattern : {"www, DD nnn YYYY hh:mm:ss GMT", "www nnn _D hh:mm:ss YYYY"}) {
        Parts parts;
        if (matches(text, pattern, parts))
            return toSeconds(parts);
    }
    Parts parts;
    const auto comma = text.find(',');
    if (comma == std::string_view::npos || comma < 6 || comma > 9 ||
        !matches(text.substr(comma), ", DD-nnn-YY hh:mm:ss GMT", parts))
        return std::nullopt;
    const int thisYear = yearOf(now);
    parts.year += thisYear - thisYear % 100;
    if (parts.year > thisYear + 50)
        parts.year -= 100;
    return toSeconds(parts);
}

} // namespace connector::http::content
