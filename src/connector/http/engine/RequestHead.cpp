#include "connector/http/engine/RequestHead.h"

#include <algorithm>
#include <charconv>

#include "connector/http/HttpText.h"
#include "connector/http/UrlPath.h"

namespace connector::http::engine {

namespace {

constexpr unsigned kMaxEmptyLines = 2;
constexpr std::size_t kMaxMethodBytes = 32;

bool isDigits(std::string_view text) noexcept
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// What a target may hold besides its percent signs: visible ASCII without the characters that no browser sends.
bool isTargetText(std::string_view text) noexcept
{
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c > 0x20 && c < 0x7f && c != '#' && c != '"' && c != '<' && c != '>'; });
}

/// How a broken line or target begins, for the text of its refusal. What follows is left out: it may be a token or a
/// nonce, which must not get into answers and from there into somebody's log.
std::string beginning(std::string_view text)
{
    const auto end = text.find_first_of(" \t:?=;", 1);
    return "\"" + printable(text.substr(0, end)) + (end == std::string_view::npos ? "\"" : "...\"");
}

} // namespace

RequestHeadReader::State RequestHeadReader::read(std::string_view bytes)
{
    const auto longestLine = limits_.targetBytes + kMaxMethodBytes + 16; // of the request line
    while (!complete_) {
        // No byte beyond a limit is looked at, so that the answer does not depend on how many came at a time.
        const auto most = inFields_ ? limits_.headBytes : std::min(limits_.headBytes, lineStart_ + longestLine + 1);
        const auto limit = std::min(bytes.size(), most);
        for (; scanned_ < limit && bytes[scanned_] != '\n'; ++scanned_) {
            const auto byte = static_cast<unsigned char>(bytes[scanned_]);
            const bool control = (byte < 0x20 && byte != '\r' && byte != '\t') || byte == 0x7f;
            const bool loneReturn = scanned_ > lineStart_ && bytes[scanned_ - 1] == '\r';
            if (control || loneReturn) {
                refuse(400, "Control character in the request head.");
                return State::refused;
            }
        }
        const auto length = scanned_ - lineStart_;
        if (!inFields_ && length > longestLine) {
            refuse(414, "The request target is longer than " + std::to_string(limits_.targetBytes) + " bytes.");
            return State::refused;
        }
        if (scanned_ == limit) {
            if (limit < limits_.headBytes)
                return State::needMore;
            refuse(431, "The request head is longer than " + std::to_string(limits_.headBytes) + " bytes.");
            return State::refused;
        }
        if (length == 0 || bytes[scanned_ - 1] != '\r') {
            refuse(400, "A line of the request head ends without a carriage return.");
            return State::refused;
        }
        if (!readLine(bytes.substr(lineStart_, length - 1)))
            return State::refused;
        lineStart_ = ++scanned_;
    }
    return State::complete;
}

bool RequestHeadReader::refuse(unsigned status, std::string text)
{
    refused_ = {status, std::move(text)};
    return false;
}

bool RequestHeadReader::readLine(std::string_view line)
{
    if (inFields_) {
        if (!line.empty())
            return readField(line);
        complete_ = finish();
        return complete_;
    }
    if (line.empty()) {
        if (++emptyLines_ > kMaxEmptyLines)
            return refuse(400, "Empty lines instead of a request.");
        return true;
    }
    inFields_ = true;
    return readRequestLine(line);
}

bool RequestHeadReader::readRequestLine(std::string_view line)
{
    const auto first = line.find(' ');
    const auto last = line.rfind(' ');
    if (first == std::string_view::npos || first == last || line.find(' ', first + 1) != last)
        return refuse(400, "Not a request line: " + beginning(line));

    const std::string_view method = line.substr(0, first);
    const std::string_view target = line.substr(first + 1, last - first - 1);
    const std::string_view version = line.substr(last + 1);
    if (!isToken(method) || method.size() > kMaxMethodBytes)
        return refuse(400, "Not a method: \"" + printable(method) + "\"");
    if (version.size() != 8 || !version.starts_with("HTTP/") || !isDigits(version.substr(5, 1)) || version[6] != '.' ||
        !isDigits(version.substr(7)))
        return refuse(400, "Not an HTTP version: \"" + printable(version) + "\"");
    if (version != "HTTP/1.1" && version != "HTTP/1.0")
        return refuse(505, "This server speaks HTTP/1.1 and HTTP/1.0.");
    if (method == "CONNECT" || method == "TRACE")
        return refuse(501, "The method " + std::string(method) + " is not supported.");
    if (target.size() > limits_.targetBytes)
        return refuse(414, "The request target is longer than " + std::to_string(limits_.targetBytes) + " bytes.");

    head_.method = method;
    head_.minorVersion = version.back() == '1' ? 1 : 0;
    return readTarget(target);
}

bool RequestHeadReader::readTarget(std::string_view target)
{
    if (target.empty() || !isTargetText(target))
        return refuse(400, "Not a request target: " + beginning(target));
    if (target == "*") {
        if (head_.method != "OPTIONS")
            return refuse(400, "The target * is for OPTIONS only.");
        head_.target = head_.path = "*";
        return true;
    }

    std::string_view rest = target;
    if (target.front() != '/') {
        const auto colon = target.find("://");
        const std::string_view scheme = target.substr(0, colon);
        if (colon == std::string_view::npos ||
            !(equalsIgnoringCase(scheme, "http") || equalsIgnoringCase(scheme, "https")))
            return refuse(400, "Not a request target: " + beginning(target));
        rest.remove_prefix(colon + 3);
        const std::string_view authority = rest.substr(0, rest.find_first_of("/?"));
        Authority parts;
        if (!Authority::parse(authority, parts))
            return refuse(400, "Not a host in the request target: \"" +
                                   printable(authority.substr(authority.rfind('@') + 1)) + "\"");
        targetAuthority_ = toLower(authority);
        rest.remove_prefix(authority.size());
    }

    const auto question = rest.find('?');
    const std::string_view path = rest.substr(0, question);
    if (question != std::string_view::npos)
        head_.query = rest.substr(question + 1);
    if (const char* reason = decodePath(path.empty() ? "/" : path, head_.path))
        return refuse(400, std::string("The path of the request target has ") + reason + ".");
    head_.target = rest.starts_with('/') ? std::string(rest) : "/" + std::string(rest);
    return true;
}

bool RequestHeadReader::readField(std::string_view line)
{
    if (head_.headers.fields().size() >= limits_.fields)
        return refuse(431, "More than " + std::to_string(limits_.fields) + " header fields.");
    const auto colon = line.find(':');
    const std::string_view name = line.substr(0, colon);
    if (colon == std::string_view::npos || !isToken(name))
        return refuse(400, "Not a header field: " + beginning(line));
    // A carriage return would have been refused while scanning, so that values need no check of their own.
    head_.headers.add(std::string(name), std::string(trimmed(line.substr(colon + 1))));
    return true;
}

bool RequestHeadReader::finish()
{
    if (!checkHost() || !checkBody() || !checkExpectations())
        return false;

    bool close = false;
    bool keepAlive = false;
    for (const auto& [name, value] : head_.headers.fields()) {
        if (equalsIgnoringCase(name, "Connection")) {
            close = close || listHas(value, "close");
            keepAlive = keepAlive || listHas(value, "keep-alive");
        }
    }
    head_.keepAlive = !close && (head_.minorVersion == 1 || keepAlive);
    return true;
}

bool RequestHeadReader::checkHost()
{
    const auto hosts = head_.headers.count("Host");
    if (hosts > 1 || (hosts == 0 && head_.minorVersion == 1))
        return refuse(400, hosts ? "More than one Host header." : "No Host header.");
    if (hosts == 1) {
        const std::string& host = *head_.headers.find("Host");
        Authority parts;
        if (!Authority::parse(host, parts))
            return refuse(400, "Not a host: \"" + printable(host) + "\"");
        if (!targetAuthority_.empty() && targetAuthority_ != toLower(host))
            return refuse(400, "The Host header and the request target name different hosts.");
        head_.authority = toLower(host);
    } else {
        head_.authority = targetAuthority_;
    }
    return true;
}

bool RequestHeadReader::checkBody()
{
    const auto lengths = head_.headers.count("Content-Length");
    const auto codings = head_.headers.count("Transfer-Encoding");
    if (lengths + codings > 1)
        return refuse(400, "More than one Content-Length or Transfer-Encoding.");
    if (codings == 1) {
        if (head_.minorVersion == 0)
            return refuse(400, "Transfer-Encoding in HTTP/1.0.");
        if (!equalsIgnoringCase(*head_.headers.find("Transfer-Encoding"), "chunked"))
            return refuse(400, "Transfer-Encoding other than chunked.");
        head_.chunked = true;
    }
    if (lengths == 1) {
        const std::string& text = *head_.headers.find("Content-Length");
        if (!isDigits(text))
            return refuse(400, "Not a Content-Length: \"" + printable(text) + "\"");
        const auto result = std::from_chars(text.data(), text.data() + text.size(), head_.contentLength);
        if (result.ec != std::errc() || head_.contentLength > limits_.bodyBytes)
            return refuse(413, "The body is longer than " + std::to_string(limits_.bodyBytes) + " bytes.");
    }
    return true;
}

bool RequestHeadReader::checkExpectations()
{
    for (const auto& [name, value] : head_.headers.fields()) {
        if (equalsIgnoringCase(name, "Expect")) {
            if (!equalsIgnoringCase(value, "100-continue"))
                return refuse(417, "Expect other than 100-continue.");
            head_.expectsContinue = head_.minorVersion == 1;
        } else if (equalsIgnoringCase(name, "Content-Encoding") && !equalsIgnoringCase(value, "identity")) {
            return refuse(415, "A body with Content-Encoding " + printable(value) + " is not accepted.");
        }
    }
    return true;
}

} // namespace connector::http::engine
